#pragma once

#include <memory>

#include <boost/asio/io_context.hpp>

#include "apps/lifecycle/orbi/include/logger.h"
#include "daemon/call_threads.h"
#include "orbi/core/provider.h"

namespace Host::Settings::SettingsApi {

/// Builds what every call goes through: authentication, then user authorisation, then the host
/// filter, then the way to the request threads, then the local provider with the eighteen services
/// and the framework's metadata interfaces. The latter touch nothing but memory and stay on the
/// thread that carries the connections.
///
/// Loads the metadata files; when one is missing or malformed the process stops. Called once, on
/// the main thread, before anything is served; the provider is then used from any thread.
/// @param threads  outlives the provider and every call
/// @param io       outlives the provider, and is stopped before that goes
[[nodiscard]] Orbi::Core::AsyncApiProviderPtr BuildProvider(
    const std::shared_ptr<OrbiLoggerWrapper>& logger, CallThreads& threads,
    boost::asio::io_context& io);

}  // namespace Host::Settings::SettingsApi
