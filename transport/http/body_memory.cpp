#include "transport/http/body_memory.h"

#include <algorithm>
#include <exception>

namespace Orbi::Transport::PicoHttp {

BodyMemory::BodyMemory(boost::asio::io_context& context, std::size_t largest, const Limits& limits)
    : largest_(largest), limits_(limits), timer_(context) {}

/// Who fits does not depend on a body's own length: short ones could keep a long one waiting for
/// ever.
void BodyMemory::AdmitWaiting() {
  for (auto next = waiting_.begin(); next != waiting_.end() && !IsFull();) {
    Claim& claim = **next++;
    if (IsFull(claim.party_->second)) continue;  // it waits for its own party only
    --claim.party_->second.waiting;
    claim.Admit();
  }
}

void BodyMemory::LookLater() noexcept {
  if (looking_) return;
  try {
    timer_.expires_after(limits_.period);
    timer_.async_wait([weak = weak_from_this()](const boost::system::error_code&) {
      if (const auto memory = weak.lock()) memory->Look();
    });
    looking_ = true;
  } catch (const std::exception&) {
    // The next claim that waits tries again.
  }
}

/// Ends what keeps others waiting without making progress. A body has a whole period from the first
/// look that finds it.
void BodyMemory::Look() {
  looking_ = false;
  if (waiting_.empty()) {
    for (Claim* const claim : reading_) claim->arrivedBefore_.reset();
    return;
  }
  LookLater();
  for (auto next = reading_.begin(); next != reading_.end();) {
    Claim& claim = **next++;
    const Party& party = claim.party_->second;
    const std::size_t arrived = claim.reader_.Arrived();
    const auto before = std::exchange(claim.arrivedBefore_, arrived);
    const bool inTheWay = IsFull() || (IsFull(party) && party.waiting > 0);
    if (inTheWay && before && arrived - *before < limits_.leastArrival) claim.reader_.GiveUp();
  }
}

BodyMemory::Claim::Claim(const std::shared_ptr<BodyMemory>& memory, const std::string& party,
                         std::size_t length, Reader& reader)
    : memory_(memory), length_(length), reader_(reader), place_(1, this), node_(place_.begin()) {
  party_ = memory_->parties_.try_emplace(party).first;
  ++party_->second.claims;
  if (!memory_->IsFull() && !memory_->IsFull(party_->second)) {
    Admit();
    return;
  }
  ++party_->second.waiting;
  memory_->waiting_.splice(memory_->waiting_.end(), place_);
  memory_->LookLater();
}

BodyMemory::Claim::~Claim() {
  Party& party = party_->second;
  if (!admitted_) {
    --party.waiting;
    memory_->waiting_.erase(node_);
  } else {
    if (reading_) memory_->reading_.erase(node_);
    Hold(0);
  }
  if (--party.claims == 0) memory_->parties_.erase(party_);
  memory_->AdmitWaiting();
}

void BodyMemory::Claim::Complete(std::size_t length) {
  reading_ = false;
  memory_->reading_.erase(node_);
  Hold(std::min(length, held_));
  memory_->AdmitWaiting();
}

void BodyMemory::Claim::Admit() {
  admitted_ = reading_ = true;
  auto& from = place_.empty() ? memory_->waiting_ : place_;
  memory_->reading_.splice(memory_->reading_.end(), from, node_);
  Hold(length_);
  if (wait_) wait_->cancel();
}

void BodyMemory::Claim::Hold(std::size_t length) {
  memory_->held_ += length - held_;
  party_->second.held += length - held_;
  held_ = length;
}

}  // namespace Orbi::Transport::PicoHttp
