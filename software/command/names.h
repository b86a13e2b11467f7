#pragma once

#include <string>

namespace LifeCycle {

/// Whether the text is empty or white space only.
[[nodiscard]] bool IsBlank(const std::string& text);

/// Whether the text holds no character that could mean something on a command line.
[[nodiscard]] bool IsSafeName(const std::string& text);

/// Whether a name from outside may be placed on a command line: not blank, and safe. It may hold
/// blanks and then becomes several words, which commands must be ready to refuse.
[[nodiscard]] bool IsValidName(const std::string& text);

}  // namespace LifeCycle
