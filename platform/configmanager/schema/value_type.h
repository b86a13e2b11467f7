#pragma once

#include <rapidjson/document.h>

#include <string_view>

/// The types of JSON Schema (draft 2020-12, Validation, section 6.1.1) but "null". Functions
/// without state, callable from any thread.
namespace RyxConfigManager {

[[nodiscard]] bool IsTypeName(std::string_view name);

/// Whether a value is of a type; of the empty type all values are. A number without a fraction is
/// an integer however it is written.
[[nodiscard]] bool IsOfType(const rapidjson::Value& value, std::string_view type);

/// Compares two numbers; integers exactly, though a double cannot tell all of them apart.
[[nodiscard]] bool IsLess(const rapidjson::Value& left, const rapidjson::Value& right);

}  // namespace RyxConfigManager
