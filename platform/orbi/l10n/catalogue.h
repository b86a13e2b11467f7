#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "orbi/data/message.h"
#include "orbi/l10n/bundle.h"

namespace Orbi::L10n {

/// Builds one of the framework's own messages, with its text from the catalogue and the arguments
/// filled in. An identifier that is not in the catalogue is a programming error and is its own
/// text.
[[nodiscard]] Data::LocalizableMessage FrameworkMessage(std::string_view id,
                                                        std::vector<std::string> args = {});

/// The whole catalogue, in English.
[[nodiscard]] LocalizationBundle::Texts FrameworkTexts();

}  // namespace Orbi::L10n
