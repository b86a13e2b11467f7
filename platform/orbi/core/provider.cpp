#include "orbi/core/provider.h"

#include <exception>

#include "orbi/l10n/catalogue.h"
#include "orbi/std/errors.h"

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

Data::ErrorValue Overloaded() {
  return Com::Tessel::Orbi::Std::Errors::ServiceUnavailable(
      {L10n::FrameworkMessage("orbi.provider.overloaded")});
}

}  // namespace Orbi::Core
