#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

/// The framework's dynamic values: what travels between clients, providers and services before and
/// after the generated bindings turn it into native structures.
///
/// Values are plain value types: copying copies, and a const value may be read from several
/// threads. Nesting is bounded where bytes become values (see the JSON readers), so that recursion
/// over a value is safe.
namespace Orbi::Data {

class Value;
struct Field;

struct Void {
  bool operator==(const Void&) const = default;
};

/// Arbitrary bytes; base64 on the wire (RFC 4648, section 4).
struct Blob {
  std::string bytes;
  bool operator==(const Blob&) const = default;
};

/// Text that serializers in secure mode never write out.
struct Secret {
  std::string text;
  bool operator==(const Secret&) const = default;
};

/// The name of the structure, with the fields "key" and "value", that is one entry of a map.
inline constexpr std::string_view kMapEntry = "map-entry";

struct List {
  std::vector<Value> items;
  /// The list stands for a map: without entries, its clean JSON is {} and not []. Not part of the
  /// value, and unknown of a list that was read from JSON until somebody who knows its type marks
  /// it.
  bool is_map = false;

  bool operator==(const List&) const;
};

/// A value that may be unset.
struct Optional {
  std::shared_ptr<const Value> value;  ///< empty when unset
  bool operator==(const Optional&) const;
};

/// A named structure. Fields keep the order in which they were added; names are unique.
struct Structure {
  std::string name;
  std::vector<Field> fields;

  /// @return the field's value, or nullptr when there is no such field
  [[nodiscard]] const Value* Find(std::string_view field) const;
  /// Appends a field; the caller guarantees that the name is new.
  Structure& Add(std::string field, Value value);

  bool operator==(const Structure&) const;
};

/// A named error with fields, as a service reports it to its client.
struct ErrorValue {
  std::string id;
  std::vector<Field> fields;

  /// An error of the given identifier without fields.
  [[nodiscard]] static std::shared_ptr<const ErrorValue> Create(std::string id);

  [[nodiscard]] const Value* Find(std::string_view field) const;
  ErrorValue& Add(std::string field, Value value);
  /// One line for logs: the identifier and the default texts of its messages.
  [[nodiscard]] std::string ToText() const;

  bool operator==(const ErrorValue&) const;
};

class Value {
 public:
  using Storage = std::variant<Void, bool, std::int64_t, double, std::string, Blob, Secret, List,
                               Optional, Structure, ErrorValue>;

  // Defined out of line: the alternatives below are complete only after this class.
  Value();
  Value(const Value&);
  Value(Value&&) noexcept;
  Value& operator=(const Value&);
  Value& operator=(Value&&) noexcept;
  ~Value();

  explicit Value(bool v);
  explicit Value(std::int64_t v);
  explicit Value(int v);
  explicit Value(double v);
  // Implicit from what can only be meant as a value.
  Value(std::string v);
  Value(const char* v);
  Value(Blob v);
  Value(Secret v);
  Value(List v);
  Value(Optional v);
  Value(Structure v);
  Value(ErrorValue v);

  /// @return the value as T, or nullptr when it is of another type
  template <typename T>
  [[nodiscard]] const T* As() const {
    return std::get_if<T>(&storage_);
  }
  template <typename T>
  [[nodiscard]] T* As() {
    return std::get_if<T>(&storage_);
  }

  [[nodiscard]] const Storage& storage() const { return storage_; }

  /// The type's name as error messages give it: "void", "boolean", "integer", "double", "string",
  /// "binary", "secret", "list", "optional", "structure" or "error".
  [[nodiscard]] std::string_view TypeName() const;

  bool operator==(const Value& other) const;

 private:
  Storage storage_;
};

struct Field {
  std::string name;
  Value value;
  bool operator==(const Field& other) const;
};

/// An optional that holds `value`.
[[nodiscard]] Optional Some(Value value);

}  // namespace Orbi::Data
