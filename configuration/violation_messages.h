#pragma once

#include <exception>
#include <span>
#include <vector>

#include "configmanager/results.h"
#include "orbi/data/message.h"

/// What the configuration manager reports, as messages for clients. Callable from any thread.
namespace LifeCycle {

[[nodiscard]] Orbi::Data::LocalizableMessage ToMessage(const RyxConfigManager::ErrorInfo& error);

/// The messages of the errors in their order, then what AppendPlaces adds.
[[nodiscard]] std::vector<Orbi::Data::LocalizableMessage> ToMessages(
    std::span<const RyxConfigManager::ErrorInfo> errors);

/// Adds for each error that has a path "com.tessel.ryx.settings.place", whose arguments are the
/// path, the error's text and identifier, component, group, key and instance, and for each that has
/// a reason "com.tessel.ryx.settings.reason". Of errors without end, only as many as fill 64 KiB.
void AppendPlaces(std::span<const RyxConfigManager::ErrorInfo> errors,
                  std::vector<Orbi::Data::LocalizableMessage>& messages);

/// What a client should know of a failure: its details if it has some, else its text.
[[nodiscard]] std::vector<Orbi::Data::LocalizableMessage> DetailsOf(const std::exception& failure);

}  // namespace LifeCycle
