#include <functional>
#include <string>
#include <vector>

#include "orbi/metadata/provider_helper.h"
#include "orbi/metadata/read_only_interface.h"

namespace Orbi::Provider::ProviderHelper {
namespace {

using Metadata::Answer;
using Metadata::ListOfTexts;
using Metadata::NotFound;
using Metadata::ReadOnlyOperation;

const std::string kService = "com.tessel.orbi.std.introspection.service";
const std::string kOperation = "com.tessel.orbi.std.introspection.operation";
using Arguments = std::vector<std::string>;

Data::Value OperationNames(const Core::ApiInterface& service) {
  Data::List names;
  names.items.reserve(service.operations.size());
  for (const Core::Operation& operation : service.operations)
    names.items.emplace_back(operation.definition.name);
  return names;
}

Data::Value OperationInfo(const Core::OperationDefinition& definition) {
  Data::List input;
  for (const Core::FieldDefinition& field : definition.input) {
    Data::Structure described{kOperation + ".field", {}};
    described.Add("name", field.name).Add("type", field.type);
    input.items.emplace_back(std::move(described));
  }
  Data::Structure info{kOperation + ".info", {}};
  info.Add("input", std::move(input))
      .Add("any_input", Data::Value(definition.anyInput))
      .Add("output", definition.output)
      .Add("errors", ListOfTexts(definition.errors));
  return info;
}

/// Answers about the bound service that the first argument names.
Answer AboutService(
    const Core::AsyncLocalProvider& provider,
    std::function<Core::MethodResult(const Core::ApiInterface&, const Arguments&)> answer) {
  return [&provider, answer = std::move(answer)](const Arguments& arguments) {
    const auto it = provider.interfaces().find(arguments[0]);
    return it == provider.interfaces().end()
               ? NotFound("orbi.provider.interface.unknown", {arguments[0]})
               : answer(it->second, arguments);
  };
}

}  // namespace

std::vector<Core::ApiInterface> IntrospectionInterfaces(const Core::AsyncLocalProvider& provider) {
  const auto listServices = [&provider](const Arguments&) {
    std::vector<std::string> identifiers;
    for (const auto& [identifier, service] : provider.interfaces())
      identifiers.push_back(identifier);
    return Core::MethodResult::Output(ListOfTexts(identifiers));
  };
  const auto getService = [](const Core::ApiInterface& service, const Arguments&) {
    Data::Structure info{kService + ".info", {}};
    info.Add("operations", OperationNames(service));
    return Core::MethodResult::Output(std::move(info));
  };
  const auto listOperations = [](const Core::ApiInterface& service, const Arguments&) {
    return Core::MethodResult::Output(OperationNames(service));
  };
  const auto getOperation = [](const Core::ApiInterface& service, const Arguments& arguments) {
    const Core::Operation* operation = service.Find(arguments[1]);
    return operation ? Core::MethodResult::Output(OperationInfo(operation->definition))
                     : NotFound("orbi.provider.operation.unknown", arguments);
  };
  return {
      {kService,
       {ReadOnlyOperation("list", {}, "list<string>", listServices),
        ReadOnlyOperation("get", {"id"}, kService + ".info", AboutService(provider, getService))}},
      {kOperation,
       {ReadOnlyOperation("list", {"service_id"}, "list<string>",
                          AboutService(provider, listOperations)),
        ReadOnlyOperation("get", {"service_id", "operation_id"}, kOperation + ".info",
                          AboutService(provider, getOperation))}}};
}

}  // namespace Orbi::Provider::ProviderHelper
