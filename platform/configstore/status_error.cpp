#include "configstore/status_error.h"

#include <string_view>

namespace RyxConfigStore {
namespace {

std::string FillIn(const StatusTexts& texts, std::int32_t code,
                   std::initializer_list<std::string> arguments) {
  const auto known = texts.find(code);
  std::string_view rest =
      known == texts.end() ? std::string_view("Unknown status") : std::string_view(known->second);
  std::string text;
  for (const std::string& argument : arguments) {
    const auto place = rest.find('%');
    if (place == std::string_view::npos) break;
    text.append(rest.substr(0, place)).append(argument);
    rest.remove_prefix(place + 2);  // every placeholder is two characters
  }
  return text.append(rest);
}

}  // namespace

StatusError::StatusError(const StatusTexts& texts, std::int32_t code,
                         std::initializer_list<std::string> arguments)
    : std::runtime_error(FillIn(texts, code, arguments)), code_(code) {}

}  // namespace RyxConfigStore
