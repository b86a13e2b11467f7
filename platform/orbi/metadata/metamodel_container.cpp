#include "orbi/metadata/metamodel_container.h"

#include "orbi/bindings/adapter.h"
#include "orbi/metadata/document.h"

namespace Orbi::Provider::Metadata::Metamodel {
namespace {

const std::string kPrefix = "com.tessel.orbi.metadata.metamodel.";

/// A structure of the metamodel's own description.
Data::Structure Described(const char* structure, const Node& node) {
  Data::Structure described{kPrefix + structure, {}};
  described.Add("documentation", node.Member("documentation").Text());
  return described;
}

Data::Value Fields(const Node& fields) {
  Data::List list;
  fields.ForEach([&](const std::string& name, const Node& field) {
    field.Only({"type", "documentation"});
    list.items.push_back(
        Described("field", field).Add("name", name).Add("type", field.Member("type").Text()));
  });
  return list;
}

Data::Value Result(const Node& result) {
  result.Only({"type", "documentation"});
  return Described("result", result).Add("type", result.Member("type").Text());
}

Data::Value TextsByName(const Node& node) {
  std::map<std::string, std::string> texts;
  node.ForEach([&](const std::string& name, const Node& text) { texts[name] = text.Text(); });
  return Bindings::Adapter<std::map<std::string, std::string>>::ToValue(texts);
}

Data::Value Operation(const std::string& name, const Node& operation) {
  operation.Only({"documentation", "input", "output", "task_result", "errors"});
  const bool anyInput = operation.Member("input").Is("any");
  return Described("operation", operation)
      .Add("name", name)
      .Add("input", anyInput ? Data::List{} : Fields(operation.Member("input")))
      .Add("any_input", Data::Value(anyInput))
      .Add("output", Result(operation.Member("output")))
      .Add("task_result", operation.Has("task_result")
                              ? Data::Some(Result(operation.Member("task_result")))
                              : Data::Optional{})
      .Add("errors", operation.Has("errors") ? TextsByName(operation.Member("errors"))
                                             : Data::Value(Data::List{{}, true}));
}

Data::Value Service(const std::string& component, const Node& service) {
  service.Only({"documentation", "operations"});
  Data::List operations;
  service.Member("operations").ForEach([&](const std::string& name, const Node& operation) {
    operations.items.push_back(Operation(name, operation));
  });
  return Described("service.info", service)
      .Add("component", component)
      .Add("operations", std::move(operations));
}

Data::Value Structure(const std::string& component, const char* kind, const Node& structure,
                      Data::Value fields) {
  return Described("structure.info", structure)
      .Add("component", component)
      .Add("kind", kind)
      .Add("fields", std::move(fields));
}

Data::Value Enumeration(const std::string& component, const Node& enumeration) {
  enumeration.Only({"documentation", "values"});
  Data::List values;
  enumeration.Member("values").ForEach([&](const std::string& name, const Node& meaning) {
    Data::Structure value{kPrefix + "enumeration.value", {}};
    value.Add("name", name).Add("documentation", meaning.Text());
    values.items.emplace_back(std::move(value));
  });
  return Described("enumeration.info", enumeration)
      .Add("component", component)
      .Add("values", std::move(values));
}

}  // namespace

void MetadataContainer::Add(const std::string& component, const Data::Value& document) {
  const Node root(document);
  root.Only({"format", "component", "documentation", "services", "structures", "enumerations",
             "errors", "error_fields"});
  MetadataContainer added;
  root.ForEachIn("services", [&](const std::string& id, const Node& service) {
    added.services_.emplace(id, Service(component, service));
    added.IndexFields(id, service);
  });
  root.ForEachIn("structures", [&](const std::string& id, const Node& structure) {
    structure.Only({"documentation", "fields", "native"});
    added.structures_.emplace(
        id, Structure(component, "STRUCTURE", structure, Fields(structure.Member("fields"))));
  });
  root.ForEachIn("errors", [&](const std::string& id, const Node& error) {
    error.Only({"documentation"});
    if (!added.structures_
             .emplace(id, Structure(component, "ERROR", error, Fields(root.Member("error_fields"))))
             .second)
      error.Fail("is described twice");
  });
  root.ForEachIn("enumerations", [&](const std::string& id, const Node& enumeration) {
    added.enumerations_.emplace(id, Enumeration(component, enumeration));
  });
  Merge(std::move(added));
}

void MetadataContainer::IndexFields(const std::string& service, const Node& description) {
  description.Member("operations").ForEach([&](const std::string& name, const Node& operation) {
    if (operation.Member("input").Is("any")) return;
    operation.Member("input").ForEach([&](const std::string& field, const Node&) {
      operationsByField_[field].insert({service, name});
    });
  });
}

void MetadataContainer::Merge(MetadataContainer&& added) {
  RefuseKnown(services_, added.services_);
  RefuseKnown(structures_, added.structures_);
  RefuseKnown(enumerations_, added.enumerations_);
  services_.merge(added.services_);
  structures_.merge(added.structures_);
  enumerations_.merge(added.enumerations_);
  for (auto& [field, operations] : added.operationsByField_)
    operationsByField_[field].merge(operations);
}

std::set<Core::MethodIdentifier> MetadataContainer::OperationsWithField(
    std::string_view field) const {
  const auto it = operationsByField_.find(field);
  return it == operationsByField_.end() ? std::set<Core::MethodIdentifier>{} : it->second;
}

}  // namespace Orbi::Provider::Metadata::Metamodel
