#include "orbi/l10n/wording.h"

#include <algorithm>
#include <utility>

#include "orbi/data/message.h"
#include "orbi/l10n/format.h"

namespace Orbi::L10n {
namespace {

using Data::Value;

bool IsMessage(const Data::Structure& structure) {
  return structure.name == Data::kMessageStructure;
}

bool HoldsMessage(const Value& value);

bool HoldsMessage(const std::vector<Data::Field>& fields) {
  return std::ranges::any_of(fields,
                             [](const Data::Field& field) { return HoldsMessage(field.value); });
}

// Recurses as deep as the value nests.
bool HoldsMessage(const Value& value) {
  if (const auto* structure = value.As<Data::Structure>())
    return IsMessage(*structure) || HoldsMessage(structure->fields);
  if (const auto* error = value.As<Data::ErrorValue>()) return HoldsMessage(error->fields);
  if (const auto* optional = value.As<Data::Optional>())
    return optional->value && HoldsMessage(*optional->value);
  const auto* list = value.As<Data::List>();
  return list != nullptr &&
         std::ranges::any_of(list->items, [](const Value& item) { return HoldsMessage(item); });
}

const std::string* TextField(const Data::Structure& message, std::string_view name) {
  const Value* const value = message.Find(name);
  return value != nullptr ? value->As<std::string>() : nullptr;
}

}  // namespace

void Wording::Apply(Value& value) {
  if (auto* const structure = value.As<Data::Structure>()) {
    if (IsMessage(*structure)) return ApplyToMessage(*structure);
    for (Data::Field& field : structure->fields) Apply(field.value);
  } else if (auto* const list = value.As<Data::List>()) {
    for (Value& item : list->items) Apply(item);
  } else if (auto* const error = value.As<Data::ErrorValue>()) {
    Apply(*error);
  } else if (auto* const optional = value.As<Data::Optional>()) {
    // What it holds may be shared with others.
    if (!optional->value || !HoldsMessage(*optional->value)) return;
    auto copy = std::make_shared<Value>(*optional->value);
    Apply(*copy);
    optional->value = std::move(copy);
  }
}

void Wording::Apply(Data::ErrorValue& error) {
  for (Data::Field& field : error.fields) Apply(field.value);
}

void Wording::ApplyToMessage(Data::Structure& message) {
  const std::string* const id = TextField(message, "id");
  const std::string* const defaultText = TextField(message, "default_message");
  const auto localized = std::ranges::find(message.fields, "localized", &Data::Field::name);
  if (id == nullptr || defaultText == nullptr || localized == message.fields.end()) return;
  const Value* const args = message.Find("args");
  std::string text = TextOf(*id, args != nullptr ? args->As<Data::List>() : nullptr);
  if (text.empty()) {
    const auto* const given = localized->value.As<Data::Optional>();
    if (unworded_ == Unworded::kLeft || (given != nullptr && given->value)) return;
    text = *defaultText;
  }
  localized->value = Data::Some(std::move(text));
}

std::string Wording::TextOf(const std::string& id, const Data::List* args) {
  for (const Texts& texts : texts_) {
    const auto text = texts->find(id);
    if (text == texts->end()) continue;
    std::vector<std::string> words;
    if (args != nullptr) {
      for (const Value& item : args->items) {
        const auto* const word = item.As<std::string>();
        words.push_back(word != nullptr ? *word : std::string());
      }
    }
    boost::system::error_code problem;
    std::string filled = FormatMessage(text->second, words, problem);
    if (!problem && !filled.empty()) return filled;
    misfit_ = true;
    break;
  }
  return {};
}

}  // namespace Orbi::L10n
