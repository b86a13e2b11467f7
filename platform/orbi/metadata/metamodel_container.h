#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>

#include "orbi/core/provider.h"
#include "orbi/data/value.h"
#include "orbi/metadata/process_container.h"

namespace Orbi::Provider::Metadata {
class Node;
}

namespace Orbi::Provider::Metadata::Metamodel {

/// The descriptions of the API, as the metadata interfaces serve them.
class MetadataContainer : public ProcessContainer<MetadataContainer> {
 public:
  /// Adds what a document describes.
  /// @throws MetadataError when it is malformed or describes something again; nothing is added then
  void Add(const std::string& component, const Data::Value& document);

  /// com.tessel.orbi.metadata.metamodel.service.info by service identifier.
  [[nodiscard]] const Descriptions& services() const { return services_; }
  /// com.tessel.orbi.metadata.metamodel.structure.info by the identifier of a structure or error.
  [[nodiscard]] const Descriptions& structures() const { return structures_; }
  /// com.tessel.orbi.metadata.metamodel.enumeration.info by enumeration identifier.
  [[nodiscard]] const Descriptions& enumerations() const { return enumerations_; }

  /// The operations whose input has a field of this name.
  [[nodiscard]] std::set<Core::MethodIdentifier> OperationsWithField(std::string_view field) const;

 private:
  void IndexFields(const std::string& service, const Node& description);
  void Merge(MetadataContainer&& added);

  Descriptions services_;
  Descriptions structures_;
  Descriptions enumerations_;
  std::map<std::string, std::set<Core::MethodIdentifier>, std::less<>> operationsByField_;
};

}  // namespace Orbi::Provider::Metadata::Metamodel
