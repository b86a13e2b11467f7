#include "authn/guess_limiter.h"

#include <algorithm>
#include <new>

namespace Host::Settings::SettingsApi::Authn {

bool GuessLimiter::IsShutOut(const std::string& party, Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  const auto found = parties_.find(party);
  if (found == parties_.end()) return false;
  const Failures& failures = found->second;
  return failures.size() >= limits_.failures &&
         failures.back() - failures.front() < limits_.window &&
         now - failures.back() < limits_.shutOut;
}

void GuessLimiter::Failed(const std::string& party, Clock::time_point now) noexcept try {
  const std::lock_guard lock(mutex_);
  if (parties_.size() >= limits_.parties && !parties_.contains(party)) ForgetTheQuiet(now);
  const auto [place, isNew] = parties_.try_emplace(party, 1, now);
  if (isNew) return;
  Failures& failures = place->second;
  failures.push_back(now);
  if (failures.size() > limits_.failures) failures.pop_front();
} catch (const std::bad_alloc&) {
  // The next one counts.
}

/// Makes room: of whoever's failures count no more, else of whoever has been quiet for longest.
void GuessLimiter::ForgetTheQuiet(Clock::time_point now) {
  const auto patience = std::max(limits_.window, limits_.shutOut);
  if (std::erase_if(parties_,
                    [&](const auto& party) { return now - party.second.back() >= patience; }) > 0)
    return;
  parties_.erase(std::ranges::min_element(parties_, {},
                                          [](const auto& party) { return party.second.back(); }));
}

}  // namespace Host::Settings::SettingsApi::Authn
