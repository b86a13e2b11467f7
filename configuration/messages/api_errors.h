#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "orbi/data/message.h"
#include "orbi/data/value.h"
#include "orbi/std/errors.h"

/// Messages and error values of the daemon's API. Every function here can be called from any
/// thread.
namespace LifeCycle {

/// The default English text of an API message identifier, placeholders unfilled.
/// @return "Unknown message." when no entry has exactly this identifier
[[nodiscard]] std::string ApiMessageText(std::string_view id);

/// A message of the API: its default text with the arguments filled in.
[[nodiscard]] Orbi::Data::LocalizableMessage ApiMessage(std::string id,
                                                        std::vector<std::string> args = {});

/// A standard error whose messages are the message `id` and further ones that tell more.
[[nodiscard]] Orbi::Data::ErrorValue ApiError(
    const Com::Tessel::Orbi::Std::Errors::StandardError& type, std::string id,
    std::vector<std::string> args = {}, std::vector<Orbi::Data::LocalizableMessage> further = {});

}  // namespace LifeCycle
