#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <type_traits>
#include <utility>

#include "orbi/bindings/async_result.h"
#include "orbi/data/value.h"

namespace LifeCycle {

/// What an operation throws to end with an error of its own choice.
class OperationError : public std::exception {
 public:
  explicit OperationError(Orbi::Data::ErrorValue error) : error_(std::move(error)) {}

  [[nodiscard]] const Orbi::Data::ErrorValue& error() const { return error_; }
  [[nodiscard]] const char* what() const noexcept override { return error_.id.c_str(); }

 private:
  Orbi::Data::ErrorValue error_;
};

/// Runs the work of an operation.
/// @param operation  its name in log lines
/// @return the error to answer with: the one of an OperationError, an internal server error without
///         a message for any other exception, nothing when the work returned
[[nodiscard]] std::optional<Orbi::Data::ErrorValue> Attempt(const char* operation,
                                                            const std::function<void()>& work);

/// Runs `work` and completes the call exactly once, with what it returns or with the error that it
/// threw. No exception of the work leaves this function.
template <typename T, typename Work>
void CompleteOperation(const char* operation, Orbi::Core::AsyncResult<T>& result,
                       const Work& work) {
  // The answer is given outside the guarded part: what its receiver throws is no failure of the
  // work, and must not lead to a second answer.
  if constexpr (std::is_void_v<T>) {
    if (auto error = Attempt(operation, work))
      result.SetError(std::move(*error));
    else
      result.SetResult();
  } else {
    std::optional<T> value;
    if (auto error = Attempt(operation, [&value, &work] { value.emplace(work()); }))
      result.SetError(std::move(*error));
    else
      result.SetResult(*std::move(value));
  }
}

}  // namespace LifeCycle
