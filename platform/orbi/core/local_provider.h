#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "orbi/core/api_interface.h"
#include "orbi/core/provider.h"
#include "orbi/data/message.h"
#include "orbi/log/logger.h"

namespace Orbi::Core {

/// An interface cannot be registered; what() is the message's default text.
class RegistrationError : public std::runtime_error {
 public:
  explicit RegistrationError(Data::LocalizableMessage message)
      : std::runtime_error(message.default_message), message_(std::move(message)) {}

  [[nodiscard]] const Data::LocalizableMessage& message() const { return message_; }

 private:
  Data::LocalizableMessage message_;
};

/// The innermost link of the provider chain: hands each call to the service that is registered
/// under its identifier.
///
/// Interfaces are registered before the first call; afterwards the provider is only read.
class AsyncLocalProvider : public AsyncApiProvider {
 public:
  /// @param logger  told when an implementation throws; may be empty
  explicit AsyncLocalProvider(std::shared_ptr<Log::Logger> logger = nullptr);

  /// @throws RegistrationError with "orbi.provider.interface.already.registered"
  void AddInterface(ApiInterface interface);

  /// A service or operation that is not registered is answered with operation_not_found. An
  /// exception out of an implementation is logged; the call is answered by the implementation's
  /// completion, which its unwinding abandons.
  void Invoke(const MethodIdentifier& method, Data::Value input, ExecutionContextPtr context,
              MethodCompletion completion) override;

  /// What is registered, by identifier.
  [[nodiscard]] const std::map<std::string, ApiInterface, std::less<>>& interfaces() const {
    return interfaces_;
  }

 private:
  std::shared_ptr<Log::Logger> logger_;
  std::map<std::string, ApiInterface, std::less<>> interfaces_;
};

}  // namespace Orbi::Core
