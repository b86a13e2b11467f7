#include "orbi/metadata/authentication_container.h"

#include "orbi/bindings/adapter.h"
#include "orbi/metadata/document.h"

namespace Orbi::Provider::Metadata::Authentication {
namespace {

using TextsByName = std::map<std::string, std::string>;

template <typename T>
Data::Value ToValue(const T& native) {
  return Bindings::Adapter<T>::ToValue(native);
}

MetadataContainer::Schemes KnownSchemes(const Node& list, const TextsByName& known) {
  auto schemes = list.Texts();
  for (const std::string& scheme : schemes) {
    if (!known.contains(scheme)) list.Fail("names the unknown scheme '" + scheme + "'");
  }
  if (schemes.empty()) list.Fail("is empty");
  return schemes;
}

}  // namespace

void MetadataContainer::Add(const std::string& component, const Data::Value& document) {
  const Node root(document);
  root.Only(
      {"format", "component", "documentation", "schemes", "default", "services", "operations"});
  TextsByName schemes;
  root.Member("schemes").ForEach(
      [&](const std::string& id, const Node& text) { schemes.emplace(id, text.Text()); });
  const auto readRules = [&](const char* kind, const Rules& known) {
    Rules rules;
    root.ForEachIn(kind, [&](const std::string& id, const Node& list) {
      rules.emplace(id, KnownSchemes(list, schemes));
    });
    RefuseKnown(known, rules);
    return rules;
  };
  Rules services = readRules("services", services_);
  Rules operations = readRules("operations", operations_);
  Schemes fallback;
  if (root.Has("default")) fallback = KnownSchemes(root.Member("default"), schemes);
  if (!fallback.empty() && !default_.empty()) root.Member("default").Fail("is given twice");
  if (components_.contains(component)) root.Fail("is loaded already");

  Data::Structure info{"com.tessel.orbi.metadata.authentication.component.info", {}};
  info.Add("schemes", ToValue(schemes))
      .Add("default_schemes", ToValue(fallback))
      .Add("services", ToValue(services))
      .Add("operations", ToValue(operations));
  components_.emplace(component, std::move(info));
  services_.merge(services);
  operations_.merge(operations);
  if (!fallback.empty()) default_ = std::move(fallback);
}

const MetadataContainer::Schemes& MetadataContainer::RequiredSchemes(
    const Core::MethodIdentifier& method) const {
  const auto operation =
      operations_.empty() ? operations_.end() : operations_.find(method.ToText());
  if (operation != operations_.end()) return operation->second;
  const auto service = services_.find(method.service);
  return service == services_.end() ? default_ : service->second;
}

}  // namespace Orbi::Provider::Metadata::Authentication
