#include "orbi/metadata/provider_helper.h"

#include "orbi/l10n/catalogue.h"
#include "orbi/metadata/authentication_container.h"
#include "orbi/metadata/cli_container.h"
#include "orbi/metadata/document.h"
#include "orbi/metadata/metamodel_container.h"
#include "orbi/metadata/read_only_interface.h"
#include "orbi/std/errors.h"

namespace Orbi::Provider::ProviderHelper {
namespace {

using Metadata::DescriptionsInterface;

template <typename Container>
std::optional<Data::ErrorValue> Load(Container& container, const std::string& component,
                                     const std::string& path) {
  try {
    container.Add(component, Metadata::ReadDocument(component, path));
    return std::nullopt;
  } catch (const Metadata::MetadataError& e) {
    return Com::Tessel::Orbi::Std::Errors::Error(
        {L10n::FrameworkMessage("orbi.metadata.file.invalid", {path, e.what()})});
  }
}

}  // namespace

std::optional<Data::ErrorValue> LoadCliMetadataFile(const std::string& component,
                                                    const std::string& path) {
  return Load(Metadata::Cli::MetadataContainer::Instance(), component, path);
}

std::optional<Data::ErrorValue> LoadMetamodelMetadataFile(const std::string& component,
                                                          const std::string& path) {
  return Load(Metadata::Metamodel::MetadataContainer::Instance(), component, path);
}

std::optional<Data::ErrorValue> LoadAuthnMetadataFile(const std::string& component,
                                                      const std::string& path) {
  return Load(Metadata::Authentication::MetadataContainer::Instance(), component, path);
}

std::vector<Core::ApiInterface> CliInterfaces() {
  const auto& container = Metadata::Cli::MetadataContainer::Instance();
  return {DescriptionsInterface("com.tessel.orbi.metadata.cli.command", container.commands())};
}

std::vector<Core::ApiInterface> MetamodelInterfaces() {
  const auto& container = Metadata::Metamodel::MetadataContainer::Instance();
  const std::string package = "com.tessel.orbi.metadata.metamodel.";
  return {DescriptionsInterface(package + "service", container.services()),
          DescriptionsInterface(package + "structure", container.structures()),
          DescriptionsInterface(package + "enumeration", container.enumerations())};
}

std::vector<Core::ApiInterface> AuthnInterfaces() {
  const auto& container = Metadata::Authentication::MetadataContainer::Instance();
  return {DescriptionsInterface("com.tessel.orbi.metadata.authentication.component",
                                container.components())};
}

}  // namespace Orbi::Provider::ProviderHelper
