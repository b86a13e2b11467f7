#pragma once

#include <string>
#include <vector>

#include "orbi/data/message.h"

namespace LifeCycle {

/// Reads what a helper tells on its standard error beside its exit code: lines that begin with
/// kForPrograms are JSON texts {"messages": [{"id": "...", "args": ["..."]}]}; of a helper that
/// writes none, the last line is taken for its reason.
[[nodiscard]] std::vector<Orbi::Data::LocalizableMessage> ReadHelperWords(
    const std::string& errors);

}  // namespace LifeCycle
