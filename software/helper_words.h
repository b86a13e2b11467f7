#pragma once

#include <string>
#include <vector>

#include "orbi/data/message.h"

namespace LifeCycle {

/// What a helper tells beside its exit code.
struct HelperWords {
  /// The client asked for something that cannot be, whatever the exit code is told as.
  bool blamesClient = false;
  std::vector<Orbi::Data::LocalizableMessage> messages;
};

/// Reads a helper's standard error: lines that begin with kForPrograms are JSON texts
/// {"invalid_argument": false, "messages": [{"id": "...", "args": ["..."]}]}; of a helper that
/// writes none, the last line is taken for its reason.
[[nodiscard]] HelperWords ReadHelperWords(const std::string& errors);

}  // namespace LifeCycle
