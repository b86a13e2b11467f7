#include "configmanager/schema/document_path.h"

namespace RyxConfigManager {

std::string DocumentPath::ToText() const {
  if (outer_ == nullptr) return "/";
  std::string text;
  AppendTo(text);
  return text;
}

void DocumentPath::AppendTo(std::string& text) const {
  if (outer_ == nullptr) return;
  outer_->AppendTo(text);
  text += '/';
  if (index_ != kNoIndex) {
    text += std::to_string(index_);
    return;
  }
  for (const char c : name_) {
    if (c == '~')
      text += "~0";
    else if (c == '/')
      text += "~1";
    else
      text += c;
  }
}

}  // namespace RyxConfigManager
