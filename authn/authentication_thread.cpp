#include "authn/authentication_thread.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <system_error>
#include <utility>

#include "tesselibs/signals_blocked.h"

namespace Host::Settings::SettingsApi::Authn {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

/// What a check leaves behind in caches shows in the microseconds after it. They vanish in this.
std::chrono::microseconds Scatter() {
  constexpr std::uint32_t kMost = 10'000;
  return std::chrono::microseconds(arc4random_uniform(kMost));
}

}  // namespace

AuthenticationThread::AuthenticationThread(const Limits& limits)
    : limits_(limits), guesses_(limits.guesses), failureTime_(limits.failureTime) {}

bool AuthenticationThread::Submit(const std::string& party, Check check, Done done) {
  if (guesses_.IsShutOut(party)) {
    done(false);
    return true;
  }
  const Lock lock(mutex_);
  if (stopping_ || waiting_ >= limits_.waiting || !HasThread()) return false;
  const auto turn = std::ranges::find(turns_, party, &Turn::party);
  if (turn == turns_.end()) {
    Enqueue(party, {std::move(check), std::move(done)});
  } else {
    if (turn->waiting.size() >= limits_.waitingOfParty) return false;
    turn->waiting.push_back({std::move(check), std::move(done)});
  }
  ++waiting_;
  return true;
}

bool AuthenticationThread::HasThread() {
  if (thread_.joinable()) return true;
  try {
    const SignalsBlocked blocked;
    thread_ = std::thread([this] { Run(); });
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void AuthenticationThread::Enqueue(const std::string& party, Waiting waiting) {
  std::list<Turn> turn;
  turn.push_back({party, {}});
  turn.back().waiting.push_back(std::move(waiting));
  turns_.splice(turns_.end(), turn);
  changed_.notify_one();
}

void AuthenticationThread::Stop() {
  std::list<Turn> dropped;
  std::thread thread;
  {
    const Lock lock(mutex_);
    stopping_ = true;
    dropped.swap(turns_);
    thread = std::move(thread_);
    changed_.notify_one();
  }
  if (thread.joinable()) thread.join();
}

void AuthenticationThread::Run() {
  Lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stopping_ || !turns_.empty(); });
    if (stopping_) return;
    Turn& turn = turns_.front();
    const Waiting next = std::move(turn.waiting.front());
    turn.waiting.pop_front();
    --waiting_;
    const bool accepted = IsAccepted(lock, turn.party, next.check);
    if (stopping_) return;
    if (turn.waiting.empty())
      turns_.pop_front();
    else
      turns_.splice(turns_.end(), turns_, turns_.begin());
    lock.unlock();
    next.done(accepted);
    lock.lock();
  }
}

bool AuthenticationThread::IsAccepted(Lock& lock, const std::string& party, const Check& check) {
  if (guesses_.IsShutOut(party)) return false;  // since it was submitted
  lock.unlock();
  const auto begin = steady_clock::now();
  const bool accepted = check();
  const auto time = std::chrono::ceil<milliseconds>(steady_clock::now() - begin);
  // Half as long again, so that the time of a busy machine does not stand out.
  if (time * 5 > failureTime_ * 4)
    failureTime_ = std::max(failureTime_, std::min(time * 3 / 2, limits_.longestFailureTime));
  if (!accepted) guesses_.Failed(party);
  lock.lock();
  const auto answerAt = begin + failureTime_ + Scatter();
  if (!accepted) changed_.wait_until(lock, answerAt, [this] { return stopping_; });
  return accepted;
}

}  // namespace Host::Settings::SettingsApi::Authn
