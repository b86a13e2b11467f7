#pragma once

#include <rapidjson/document.h>
#include <re2/re2.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace RyxConfigManager {

/// A schema is none; what() tells where and why.
class SchemaError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What values may be: a subset of JSON Schema (draft 2020-12, Validation).
///
/// | keyword                                      | of the types    |
/// |----------------------------------------------|-----------------|
/// | type (one name, not "null"), description     | any             |
/// | enum                                         | any             |
/// | minimum, maximum                             | number, integer |
/// | minLength, maxLength (characters), pattern   | string          |
/// | items, minItems, maxItems                    | array           |
/// | properties, required, additionalProperties   | object          |
/// | host_specific                                | any property    |
///
/// A pattern is a regular expression of RE2 and matches anywhere in a string. What no keyword
/// restricts may be anything. "host_specific": true is this system's own: the property may stand
/// only in a document's "host-specific" part.
///
/// Pointers lead into the description that the schema was read from. Immutable once read; readable
/// from any thread.
struct Schema {
  std::string_view type;  ///< empty when the value may be of any
  bool hostSpecific = false;
  const rapidjson::Value* options = nullptr;  ///< "enum"
  const rapidjson::Value* minimum = nullptr;
  const rapidjson::Value* maximum = nullptr;
  std::optional<std::uint64_t> minSize;  ///< characters of a string, elements of an array
  std::optional<std::uint64_t> maxSize;
  std::unique_ptr<const re2::RE2> pattern;
  std::unique_ptr<const Schema> items;
  std::map<std::string, std::unique_ptr<const Schema>, std::less<>> properties;
  std::vector<std::string> required;
  std::unique_ptr<const Schema> additional;  ///< of properties that are not in `properties`
  bool allowsAdditional = true;
};

/// @param description  must outlive the schema
/// Callable from any thread.
/// @throws SchemaError  it uses something beyond the subset, or nothing can meet it
[[nodiscard]] std::unique_ptr<Schema> ReadSchema(const rapidjson::Value& description);

}  // namespace RyxConfigManager
