#pragma once

#include <optional>
#include <string>
#include <vector>

#include "orbi/core/api_interface.h"
#include "orbi/core/local_provider.h"
#include "orbi/data/value.h"

/// What a program that serves the API does with metadata: load the files into the process's
/// containers, then serve the containers and what is bound as read-only interfaces.
namespace Orbi::Provider::ProviderHelper {

/// Each loads one file into the container of its kind.
/// @param component  the name that the file must give itself
/// @return nothing on success; else an error with the message "orbi.metadata.file.invalid", whose
///         text names the file and what is wrong with it. The container is unchanged then.
[[nodiscard]] std::optional<Data::ErrorValue> LoadCliMetadataFile(const std::string& component,
                                                                  const std::string& path);
[[nodiscard]] std::optional<Data::ErrorValue> LoadMetamodelMetadataFile(
    const std::string& component, const std::string& path);
[[nodiscard]] std::optional<Data::ErrorValue> LoadAuthnMetadataFile(const std::string& component,
                                                                    const std::string& path);

/// The interfaces that serve the process's containers.
[[nodiscard]] std::vector<Core::ApiInterface> CliInterfaces();
[[nodiscard]] std::vector<Core::ApiInterface> MetamodelInterfaces();
[[nodiscard]] std::vector<Core::ApiInterface> AuthnInterfaces();

/// The interfaces that tell what is registered with `provider`, themselves included. For that very
/// provider only: they must not outlive it.
[[nodiscard]] std::vector<Core::ApiInterface> IntrospectionInterfaces(
    const Core::AsyncLocalProvider& provider);

}  // namespace Orbi::Provider::ProviderHelper
