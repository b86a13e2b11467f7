#include "orbi/core/local_provider.h"

#include <algorithm>
#include <exception>

#include "orbi/l10n/catalogue.h"
#include "orbi/std/errors.h"

namespace Orbi::Core {
namespace {

MethodResult OperationNotFound(std::string_view message, std::vector<std::string> args) {
  return MethodResult::Error(Com::Tessel::Orbi::Std::Errors::OperationNotFound(
      {L10n::FrameworkMessage(message, std::move(args))}));
}

}  // namespace

const Operation* ApiInterface::Find(std::string_view operation) const {
  const auto it = std::find_if(operations.begin(), operations.end(),
                               [&](const Operation& o) { return o.definition.name == operation; });
  return it == operations.end() ? nullptr : &*it;
}

AsyncLocalProvider::AsyncLocalProvider(std::shared_ptr<Log::Logger> logger)
    : logger_(std::move(logger)) {}

void AsyncLocalProvider::AddInterface(ApiInterface interface) {
  const std::string identifier = interface.identifier;
  if (!interfaces_.emplace(identifier, std::move(interface)).second) {
    throw RegistrationError(
        L10n::FrameworkMessage("orbi.provider.interface.already.registered", {identifier}));
  }
}

void AsyncLocalProvider::Invoke(const MethodIdentifier& method, Data::Value input,
                                ExecutionContextPtr context, MethodCompletion completion) {
  const auto it = interfaces_.find(method.service);
  if (it == interfaces_.end())
    return completion(OperationNotFound("orbi.provider.interface.unknown", {method.service}));
  const Operation* operation = it->second.Find(method.operation);
  if (!operation) {
    return completion(
        OperationNotFound("orbi.provider.operation.unknown", {method.service, method.operation}));
  }
  try {
    operation->invoke(input, context, std::move(completion));
  } catch (const std::exception& e) {
    if (logger_) Log::Write(*logger_, Log::kError, method.ToText(), " threw: ", e.what());
  }
}

}  // namespace Orbi::Core
