#include "transport/http/connection_table.h"

namespace Orbi::Transport::PicoHttp {

bool ConnectionTable::Entry::Enter(const std::string& party, bool isLimited) {
  constexpr std::size_t kParts = 4;
  const auto place = table_.parties_.try_emplace(party).first;
  ++place->second.count;  // stays while room is made
  const bool inParty = !isLimited || place->second.count <= table_.most_ / kParts ||
                       GiveWay(place->second.candidates);
  const bool inAll = inParty && (table_.count_ < table_.most_ || GiveWay(table_.candidates_));
  if (!inAll) {
    if (--place->second.count == 0) table_.parties_.erase(place);
    return false;
  }
  ++table_.count_;
  party_ = place;
  entered_ = true;
  BeIdle();
  return true;
}

template <class Tag>
bool ConnectionTable::Entry::GiveWay(Candidates<Tag>& candidates) {
  auto& list = candidates.idle.empty() ? candidates.arriving : candidates.idle;
  if (list.empty()) return false;
  Entry& longest = list.front();
  longest.Leave();
  longest.MakeRoom();
  return true;
}

void ConnectionTable::Entry::BeIdle() {
  if (!entered_) return;
  BeBusy();
  table_.candidates_.idle.push_back(*this);
  party_->second.candidates.idle.push_back(*this);
}

void ConnectionTable::Entry::BeArriving() {
  if (!entered_) return;
  BeBusy();
  table_.candidates_.arriving.push_back(*this);
  party_->second.candidates.arriving.push_back(*this);
}

void ConnectionTable::Entry::BeBusy() {
  Hook<OfAll>::unlink();
  Hook<OfParty>::unlink();
}

void ConnectionTable::Entry::Leave() {
  if (!entered_) return;
  entered_ = false;
  BeBusy();
  --table_.count_;
  if (--party_->second.count == 0) table_.parties_.erase(party_);
}

}  // namespace Orbi::Transport::PicoHttp
