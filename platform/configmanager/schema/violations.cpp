#include "configmanager/schema/violations.h"

#include <algorithm>
#include <string>
#include <utility>

namespace RyxConfigManager {

void Violations::Add(const DocumentPath& path, std::string_view id,
                     std::initializer_list<std::string_view> arguments) {
  ErrorInfo violation;
  if (text_ < kMaxText) {
    violation.id.append(kValidationPrefix).append(id);
    violation.args.assign(arguments.begin(), arguments.end());
    violation.path = path.ToText();
  }
  Add(std::move(violation));
}

void Violations::Add(ErrorInfo violation) {
  if (text_ >= kMaxText) {
    ++uncollected_;
    return;
  }
  std::size_t text = violation.id.size() + violation.path.size();
  for (const std::string& argument : violation.args) text += argument.size();
  text_ += std::max(text, kMinText);
  found_.push_back(std::move(violation));
}

}  // namespace RyxConfigManager
