#include "pcore/child.h"

#include <signal.h>

#include <utility>

#include "pcore/reaper.h"
#include "pcore/wait_for_child.h"

namespace PcoreCtl {

Child::Child(Child&& other) noexcept
    : pid_(std::exchange(other.pid_, 0)),
      handle_(std::move(other.handle_)),
      usage_(std::move(other.usage_)) {}

Child::~Child() {
  if (pid_ == 0) return;
  Reaper::Instance().Adopt({pid_, std::move(handle_), std::move(usage_), Reaper::Kind::kChild});
}

void Child::SignalGroup(int signal) const {
  if (pid_ > 0) kill(-pid_, signal);
}

int Child::Wait(int& status) { return WaitForChild(std::exchange(pid_, 0), usage_, status); }

}  // namespace PcoreCtl
