#include "tesselibs/preference.h"

#include <map>

#include "tesselibs/ini_file.h"

namespace {

// Written at start-up, only read afterwards.
std::map<std::string, std::string>& Preferences() {
  static std::map<std::string, std::string> preferences;
  return preferences;
}

}  // namespace

void Preference_Init(const std::string& path) { Preferences() = ReadIniFile(path); }

std::string Preference_GetString(const std::string& key, const std::string& fallback) {
  const auto found = Preferences().find(key);
  return found == Preferences().end() ? fallback : found->second;
}
