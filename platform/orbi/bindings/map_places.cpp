#include "orbi/bindings/map_places.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace Orbi::Bindings {
namespace {

Data::Value* FindField(std::vector<Data::Field>& fields, std::string_view name) {
  for (Data::Field& field : fields)
    if (field.name == name) return &field.value;
  return nullptr;
}

/// The element, or the value of one that is a map's entry.
Data::Value& ValueOf(Data::Value& element) {
  auto* const entry = element.As<Data::Structure>();
  Data::Value* const value =
      entry && entry->name == Data::kMapEntry ? FindField(entry->fields, "value") : nullptr;
  return value ? *value : element;
}

}  // namespace

void MarkMaps(std::string_view place, Data::Value& value) {
  if (auto* const optional = value.As<Data::Optional>()) {
    if (!optional->value) return;
    auto inner = std::make_shared<Data::Value>(*optional->value);  // others may share what it holds
    MarkMaps(place, *inner);
    optional->value = std::move(inner);
    return;
  }
  auto* const list = value.As<Data::List>();
  if (place.empty()) {
    if (list) list->is_map = true;
    return;
  }
  const std::string_view step = place.substr(0, place.find('.'));
  const std::string_view rest = place.substr(std::min(step.size() + 1, place.size()));
  if (step == "*") {
    if (!list) return;
    for (Data::Value& element : list->items) MarkMaps(rest, ValueOf(element));
  } else if (auto* const structure = value.As<Data::Structure>()) {
    if (Data::Value* const field = FindField(structure->fields, step)) MarkMaps(rest, *field);
  }
}

}  // namespace Orbi::Bindings
