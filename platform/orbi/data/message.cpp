#include "orbi/data/message.h"

namespace Orbi::Data {
namespace {

const std::string* StringField(const Structure& structure, std::string_view name) {
  const Value* value = structure.Find(name);
  return value ? value->As<std::string>() : nullptr;
}

}  // namespace

Value LocalizableMessage::ToValue() const {
  List arguments;
  for (const std::string& arg : args) arguments.items.emplace_back(arg);
  Structure structure{std::string(kMessageStructure), {}};
  structure.fields.reserve(4);
  structure.Add("id", id).Add("default_message", default_message).Add("args", std::move(arguments));
  structure.Add("localized", localized ? Some(*localized) : Optional{});
  return structure;
}

std::optional<LocalizableMessage> LocalizableMessage::FromValue(const Value& value) {
  const auto* structure = value.As<Structure>();
  if (!structure) return std::nullopt;
  const std::string* id = StringField(*structure, "id");
  const std::string* text = StringField(*structure, "default_message");
  const Value* args = structure->Find("args");
  const List* list = args ? args->As<List>() : nullptr;
  if (!id || !text || !list) return std::nullopt;

  LocalizableMessage message{*id, *text, {}, std::nullopt};
  for (const Value& item : list->items) {
    const auto* arg = item.As<std::string>();
    if (!arg) return std::nullopt;
    message.args.push_back(*arg);
  }
  const Value* localized = structure->Find("localized");
  const auto* optional = localized ? localized->As<Optional>() : nullptr;
  if (optional && optional->value) {
    if (const auto* words = optional->value->As<std::string>()) message.localized = *words;
  }
  return message;
}

std::string FillPlaceholders(const std::string& textTemplate,
                             const std::vector<std::string>& args) {
  std::string text;
  for (std::size_t i = 0; i < textTemplate.size(); ++i) {
    const bool placeholder = textTemplate[i] == '{' && i + 2 < textTemplate.size() &&
                             textTemplate[i + 1] >= '1' && textTemplate[i + 1] <= '9' &&
                             textTemplate[i + 2] == '}';
    const std::size_t number =
        placeholder ? static_cast<std::size_t>(textTemplate[i + 1] - '1') : args.size();
    if (number < args.size()) {
      text += args[number];
      i += 2;
    } else {
      text += textTemplate[i];
    }
  }
  return text;
}

LocalizableMessage MakeMessage(std::string id, const std::string& textTemplate,
                               std::vector<std::string> args) {
  std::string text = FillPlaceholders(textTemplate, args);
  return {std::move(id), std::move(text), std::move(args), std::nullopt};
}

}  // namespace Orbi::Data
