#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "orbi/data/message.h"

namespace LifeCycle {

/// The default English text of a message that the configuration manager reports, placeholders
/// unfilled: from the catalogues of the configuration modules, else from the built-in table.
/// Callable from any thread.
/// @return "Unknown message." when neither knows the identifier
[[nodiscard]] std::string ConfigManagerMessageText(std::string_view id);

/// Such a message, with the arguments filled in.
[[nodiscard]] Orbi::Data::LocalizableMessage ConfigManagerMessage(
    std::string id, std::vector<std::string> args = {});

}  // namespace LifeCycle
