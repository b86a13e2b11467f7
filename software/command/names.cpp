#include "software/command/names.h"

#include <algorithm>
#include <cctype>

namespace LifeCycle {

namespace {

constexpr const char* kUnsafeCharacters = ";\\*+%$~!\"':";

}  // namespace

bool IsBlank(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](unsigned char c) { return std::isspace(c) != 0; });
}

bool IsSafeName(const std::string& text) {
  return text.find_first_of(kUnsafeCharacters) == std::string::npos;
}

bool IsValidName(const std::string& text) { return !IsBlank(text) && IsSafeName(text); }

}  // namespace LifeCycle
