#include "orbi/bindings/structure_adapter.h"

#include <algorithm>

namespace Orbi::Bindings {

StructureReader::StructureReader(std::string_view name, const Data::Value& value,
                                 AdaptErrors& errors)
    : name_(name),
      structure_(value.As<Data::Structure>()),
      errors_(errors),
      complete_(structure_ != nullptr) {
  if (!structure_) errors_.Mismatch(name_, value);
}

void StructureReader::Missing(std::string_view name, std::string_view expected) {
  complete_ = false;
  // A value that is no structure at all was told once, as a whole.
  if (structure_) errors_.MissingField(name_, name, expected);
}

void StructureReader::RefuseAllBut(std::span<const std::string_view> known) {
  complete_ = false;
  for (const Data::Field& field : structure_->fields) {
    if (std::find(known.begin(), known.end(), field.name) == known.end())
      errors_.ExtraField(name_, field.name, field.value);
  }
}

std::optional<std::size_t> ReadEnumeration(std::string_view name,
                                           std::span<const std::string_view> names,
                                           const Data::Value& value, AdaptErrors& errors) {
  const auto* text = value.As<std::string>();
  if (!text) return errors.Mismatch(name, value), std::nullopt;
  const auto it = std::find(names.begin(), names.end(), *text);
  if (it == names.end()) return errors.MismatchedText(name), std::nullopt;
  return static_cast<std::size_t>(it - names.begin());
}

}  // namespace Orbi::Bindings
