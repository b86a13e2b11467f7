#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orbi/bindings/adapter.h"

/// How generated code adapts structures and enumerations. A structure has one list of its fields: a
/// function that shows them one after the other to a visitor. Both directions are made of it.
namespace Orbi::Bindings {

/// The visitor that makes a value of a native structure.
class StructureWriter {
 public:
  StructureWriter(std::string_view name, std::size_t fields) : structure_{std::string(name), {}} {
    structure_.fields.reserve(fields);
  }

  template <typename T>
  void operator()(const char* name, const T& native) {
    structure_.Add(name, Adapter<T>::ToValue(native));
  }

  [[nodiscard]] Data::Value Take() { return std::move(structure_); }

 private:
  Data::Structure structure_;
};

/// The visitor that fills a native structure from a value. The value and the errors must outlive
/// it.
class StructureReader {
 public:
  StructureReader(std::string_view name, const Data::Value& value, AdaptErrors& errors);

  template <typename T>
  void operator()(const char* name, T& native) {
    constexpr bool kMayBeLeftOut = requires { native.has_value(); };
    const Data::Value* field = structure_ ? structure_->Find(name) : nullptr;
    if (!field) {
      if (!kMayBeLeftOut) Missing(name, Adapter<T>::TypeName());
      return;
    }
    ++found_;
    const AdaptErrors::Location location(errors_, std::string_view(name));
    if (std::optional<T> adapted = Adapter<T>::FromValue(*field, errors_)) {
      native = std::move(*adapted);
    } else {
      complete_ = false;
    }
  }

  [[nodiscard]] bool complete() const { return complete_; }
  [[nodiscard]] bool HasLeftovers() const {
    return structure_ && found_ != structure_->fields.size();
  }
  void RefuseAllBut(std::span<const std::string_view> known);

 private:
  void Missing(std::string_view name, std::string_view expected);

  std::string_view name_;
  const Data::Structure* structure_;
  AdaptErrors& errors_;
  std::size_t found_ = 0;
  bool complete_;
};

/// The visitor that collects the names of a structure's fields.
class FieldNames {
 public:
  template <typename T>
  void operator()(const char* name, const T&) {
    names_.emplace_back(name);
  }
  [[nodiscard]] std::span<const std::string_view> names() const { return names_; }

 private:
  std::vector<std::string_view> names_;
};

template <typename T, typename Fields>
Data::Value WriteStructure(std::string_view name, const T& native, const Fields& fields) {
  std::size_t count = 0;
  const auto counter = [&count](const char*, const auto&) { ++count; };
  fields(native, counter);
  StructureWriter writer(name, count);
  fields(native, writer);
  return writer.Take();
}

template <typename T, typename Fields>
std::optional<T> ReadStructure(std::string_view name, const Data::Value& value, AdaptErrors& errors,
                               const Fields& fields) {
  T native{};
  StructureReader reader(name, value, errors);
  fields(native, reader);
  if (reader.HasLeftovers()) {
    FieldNames known;
    fields(native, known);
    reader.RefuseAllBut(known.names());
  }
  if (!reader.complete()) return std::nullopt;
  return native;
}

/// @return the index of the value's text among `names`, or nothing after adding to the errors
[[nodiscard]] std::optional<std::size_t> ReadEnumeration(std::string_view name,
                                                         std::span<const std::string_view> names,
                                                         const Data::Value& value,
                                                         AdaptErrors& errors);

}  // namespace Orbi::Bindings
