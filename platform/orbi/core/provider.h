#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "orbi/core/execution_context.h"
#include "orbi/data/value.h"

namespace Orbi::Core {

struct MethodIdentifier {
  std::string service;    ///< "com.tessel.cis.tasks"
  std::string operation;  ///< "get"; an operation that starts a task ends in "$task"

  /// "SERVICE.OPERATION"
  [[nodiscard]] std::string ToText() const { return service + "." + operation; }

  auto operator<=>(const MethodIdentifier&) const = default;
};

/// What a call came to: an output value or an error value. A result with neither is an internal
/// error.
struct MethodResult {
  std::optional<Data::Value> output;
  std::optional<Data::ErrorValue> error;

  [[nodiscard]] static MethodResult Output(Data::Value value) {
    return {std::move(value), std::nullopt};
  }
  [[nodiscard]] static MethodResult Error(Data::ErrorValue value) {
    return {std::nullopt, std::move(value)};
  }
};

/// Delivers one call's result, exactly once.
///
/// Whoever holds the completion owes the client an answer. Destroying one that was not called
/// delivers a result with neither value nor error; calling one twice is a programming error and
/// ends the process (std::terminate), since the second answer would go to somebody else's request.
/// Movable, callable from any thread; the receiver hops to its own.
class MethodCompletion {
 public:
  using Callback = std::function<void(MethodResult)>;

  MethodCompletion() = default;
  explicit MethodCompletion(Callback callback) : callback_(std::move(callback)) {}
  MethodCompletion(MethodCompletion&& other) noexcept
      : callback_(std::exchange(other.callback_, nullptr)) {}
  MethodCompletion& operator=(MethodCompletion&& other) noexcept;
  ~MethodCompletion() { Abandon(); }

  void operator()(MethodResult result);

 private:
  void Abandon() noexcept;

  Callback callback_;
};

/// One link of the provider chain. Invoke never throws for a reason that lies in the call: every
/// outcome goes through the completion. Called from any thread, and from several at once.
class AsyncApiProvider {
 public:
  virtual ~AsyncApiProvider() = default;

  virtual void Invoke(const MethodIdentifier& method, Data::Value input,
                      ExecutionContextPtr context, MethodCompletion completion) = 0;
};

using AsyncApiProviderPtr = std::shared_ptr<AsyncApiProvider>;

/// The error of a call that found no place to wait for its turn.
[[nodiscard]] Data::ErrorValue Overloaded();

}  // namespace Orbi::Core
