#pragma once

#include <utility>

#include "orbi/bindings/adapter.h"
#include "orbi/core/provider.h"

namespace Orbi::Core {

/// The typed face of a MethodCompletion that generated service interfaces hand to an
/// implementation: complete it once, with a native result or an error value. The rules of
/// MethodCompletion hold.
template <typename T>
class AsyncResult {
 public:
  explicit AsyncResult(MethodCompletion completion) : completion_(std::move(completion)) {}

  void SetResult(T result) {
    completion_(MethodResult::Output(Bindings::Adapter<T>::ToValue(std::move(result))));
  }
  void SetError(Data::ErrorValue error) { completion_(MethodResult::Error(std::move(error))); }

 private:
  MethodCompletion completion_;
};

template <>
class AsyncResult<void> {
 public:
  explicit AsyncResult(MethodCompletion completion) : completion_(std::move(completion)) {}

  void SetResult() { completion_(MethodResult::Output(Data::Value{})); }
  void SetError(Data::ErrorValue error) { completion_(MethodResult::Error(std::move(error))); }

 private:
  MethodCompletion completion_;
};

}  // namespace Orbi::Core
