#pragma once

#include <memory>
#include <optional>
#include <utility>

#include "orbi/bindings/adapter.h"
#include "orbi/bindings/async_result.h"
#include "orbi/core/api_interface.h"
#include "orbi/std/errors.h"

namespace Orbi::Bindings {

/// The native input of a call. An input that was left out has no fields.
template <typename Input>
std::optional<Input> ReadInput(const Data::Value& value, AdaptErrors& errors) {
  if (value.As<Data::Void>()) return Adapter<Input>::FromValue(Data::Structure{}, errors);
  return Adapter<Input>::FromValue(value, errors);
}

/// Makes an operation of a generated service interface's method: the input is adapted, an input
/// that does not fit is answered with invalid_argument, the method gets the typed completion.
template <typename Interface, typename Input, typename Output>
Core::Operation BindOperation(std::shared_ptr<Interface> implementation,
                              void (Interface::*method)(const Core::ExecutionContextPtr&,
                                                        const Input&, Core::AsyncResult<Output>),
                              Core::OperationDefinition definition) {
  auto invoke = [implementation = std::move(implementation), method](
                    const Data::Value& value, const Core::ExecutionContextPtr& context,
                    Core::MethodCompletion completion) {
    AdaptErrors errors;
    const std::optional<Input> input = ReadInput<Input>(value, errors);
    if (!input) {
      completion(Core::MethodResult::Error(
          Com::Tessel::Orbi::Std::Errors::InvalidArgument(errors.messages())));
      return;
    }
    ((*implementation).*method)(context, *input, Core::AsyncResult<Output>(std::move(completion)));
  };
  return {std::move(definition), std::move(invoke)};
}

}  // namespace Orbi::Bindings
