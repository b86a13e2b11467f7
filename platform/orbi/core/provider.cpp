#include "orbi/core/provider.h"

#include <exception>

namespace Orbi::Core {

MethodCompletion& MethodCompletion::operator=(MethodCompletion&& other) noexcept {
  if (this != &other) {
    Abandon();
    callback_ = std::exchange(other.callback_, nullptr);
  }
  return *this;
}

void MethodCompletion::operator()(MethodResult result) {
  if (!callback_) std::terminate();
  // Taken out first: the callback may destroy this object, and must never run twice.
  const Callback callback = std::exchange(callback_, nullptr);
  callback(std::move(result));
}

void MethodCompletion::Abandon() noexcept {
  if (callback_) (*this)(MethodResult{});
}

}  // namespace Orbi::Core
