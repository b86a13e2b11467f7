#pragma once

#include <memory>

#include "apps/lifecycle/orbi/include/logger.h"
#include "orbi/core/provider.h"

namespace Host::Settings::SettingsApi {

/// Builds what every call goes through: authentication, then user authorisation, then the host
/// filter, then the local provider with the eighteen services and the framework's metadata
/// interfaces.
///
/// Loads the metadata files; when one is missing or malformed the process stops. Called once, on
/// the main thread, before anything is served; the provider is then used from the endpoint's worker
/// thread.
[[nodiscard]] Orbi::Core::AsyncApiProviderPtr BuildProvider(
    const std::shared_ptr<OrbiLoggerWrapper>& logger);

}  // namespace Host::Settings::SettingsApi
