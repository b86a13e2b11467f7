#include "orbi/metadata/read_only_interface.h"

#include <optional>
#include <utility>

#include "orbi/bindings/structure_adapter.h"
#include "orbi/l10n/catalogue.h"
#include "orbi/std/errors.h"

namespace Orbi::Provider::Metadata {
namespace {

namespace Errors = Com::Tessel::Orbi::Std::Errors;
using Arguments = std::vector<std::string>;

std::optional<Arguments> ReadArguments(const std::vector<Core::FieldDefinition>& fields,
                                       const Data::Value& input, Bindings::AdaptErrors& errors) {
  // The visitor of a structure's fields fills the arguments in place.
  struct Filled {
    Arguments values;
  };
  static const Data::Value none = Data::Structure{};
  auto filled =
      Bindings::ReadStructure<Filled>("operation-input", input.As<Data::Void>() ? none : input,
                                      errors, [&fields](auto& arguments, auto& field) {
                                        arguments.values.resize(fields.size());
                                        for (std::size_t i = 0; i < fields.size(); ++i)
                                          field(fields[i].name.c_str(), arguments.values[i]);
                                      });
  if (!filled) return std::nullopt;
  return std::move(filled->values);
}

}  // namespace

Core::Operation ReadOnlyOperation(const std::string& name, const std::vector<std::string>& fields,
                                  const std::string& output, Answer answer) {
  Core::OperationDefinition definition{name, {}, false, output, {}};
  for (const std::string& field : fields) definition.input.push_back({field, "string"});
  if (!fields.empty()) definition.errors.emplace_back(Errors::NotFound.id());
  auto invoke = [inputFields = definition.input, answer = std::move(answer)](
                    const Data::Value& input, const Core::ExecutionContextPtr&,
                    Core::MethodCompletion completion) {
    Bindings::AdaptErrors errors;
    const auto arguments = ReadArguments(inputFields, input, errors);
    completion(arguments ? answer(*arguments)
                         : Core::MethodResult::Error(Errors::InvalidArgument(errors.messages())));
  };
  return {std::move(definition), std::move(invoke)};
}

Core::ApiInterface DescriptionsInterface(const std::string& identifier,
                                         const Descriptions& descriptions) {
  auto list = [&descriptions](const Arguments&) {
    Arguments identifiers;
    for (const auto& [id, description] : descriptions) identifiers.push_back(id);
    return Core::MethodResult::Output(ListOfTexts(identifiers));
  };
  auto get = [&descriptions](const Arguments& arguments) {
    const auto it = descriptions.find(arguments[0]);
    return it == descriptions.end() ? NotFound("orbi.metadata.identifier.unknown", arguments)
                                    : Core::MethodResult::Output(it->second);
  };
  return {identifier,
          {ReadOnlyOperation("list", {}, "list<string>", list),
           ReadOnlyOperation("get", {"id"}, identifier + ".info", get)}};
}

Core::MethodResult NotFound(std::string_view message, std::vector<std::string> args) {
  return Core::MethodResult::Error(
      Errors::NotFound({L10n::FrameworkMessage(message, std::move(args))}));
}

Data::Value ListOfTexts(const std::vector<std::string>& texts) {
  return Bindings::Adapter<std::vector<std::string>>::ToValue(texts);
}

}  // namespace Orbi::Provider::Metadata
