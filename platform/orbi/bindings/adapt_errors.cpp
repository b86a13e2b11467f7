#include "orbi/bindings/adapt_errors.h"

#include "orbi/l10n/catalogue.h"

namespace Orbi::Bindings {

void AdaptErrors::Mismatch(std::string_view expected, const Data::Value& found) {
  Add("orbi.data.validate.mismatch",
      {Path(), std::string(expected), std::string(found.TypeName())});
}

void AdaptErrors::MismatchedText(std::string_view expected) {
  Add("orbi.data.validate.mismatch", {Path(), std::string(expected), "another string"});
}

void AdaptErrors::MissingField(std::string_view structure, std::string_view field,
                               std::string_view expected) {
  Add("orbi.data.structure.field.missing",
      {std::string(structure), Path(field), std::string(expected)});
}

void AdaptErrors::ExtraField(std::string_view structure, std::string_view field,
                             const Data::Value& found) {
  Add("orbi.data.structure.field.extra",
      {std::string(structure), Path(field), std::string(found.TypeName())});
}

void AdaptErrors::DuplicateKey(std::string_view key) {
  Add("orbi.data.map.key.duplicate", {Path(), std::string(key)});
}

std::string AdaptErrors::ToText() const {
  std::string text;
  for (const Data::LocalizableMessage& message : messages_) {
    if (!text.empty()) text += ' ';
    text += message.default_message;
  }
  return text;
}

void AdaptErrors::Add(std::string_view id, std::vector<std::string> args) {
  if (messages_.size() < kMaxMessages)
    messages_.push_back(L10n::FrameworkMessage(id, std::move(args)));
}

std::string AdaptErrors::Path(std::string_view field) const {
  std::string text;
  const auto addName = [&text](std::string_view name) {
    if (!text.empty()) text += '.';
    text += name;
  };
  for (const Step& step : path_) {
    if (step.kind == Step::kField) {
      addName(step.name);
    } else if (step.kind == Step::kIndex) {
      text += '[' + std::to_string(step.index) + ']';
    } else {
      text.append("[\"").append(step.name).append("\"]");
    }
  }
  if (!field.empty()) addName(field);
  return text.empty() ? "value" : text;
}

}  // namespace Orbi::Bindings
