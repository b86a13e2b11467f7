#include "configmanager/violations.h"

#include <string>
#include <utility>

namespace RyxConfigManager {

void Violations::Add(const DocumentPath& path, std::string_view id,
                     std::initializer_list<std::string_view> arguments) {
  if (text_ >= kMaxText) {
    ++uncollected_;
    return;
  }
  ValidationErrorInfo violation;
  violation.id.append(kValidationPrefix).append(id);
  violation.args.assign(arguments.begin(), arguments.end());
  violation.path = path.ToText();
  text_ += violation.id.size() + violation.path.size();
  for (const std::string& argument : violation.args) text_ += argument.size();
  found_.push_back(std::move(violation));
}

}  // namespace RyxConfigManager
