#include "configmanager/schema/value_type.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace RyxConfigManager {
namespace {

using rapidjson::Value;

struct Type {
  std::string_view name;
  bool (*matches)(const Value& value);
};

constexpr Type kTypes[] = {
    {"object", [](const Value& value) { return value.IsObject(); }},
    {"array", [](const Value& value) { return value.IsArray(); }},
    {"string", [](const Value& value) { return value.IsString(); }},
    {"boolean", [](const Value& value) { return value.IsBool(); }},
    {"number", [](const Value& value) { return value.IsNumber(); }},
    {"integer",
     [](const Value& value) {
       return value.IsInt64() || value.IsUint64() ||
              (value.IsDouble() && std::trunc(value.GetDouble()) == value.GetDouble());
     }},
};

const Type* FindType(std::string_view name) {
  const auto* const type = std::find_if(std::begin(kTypes), std::end(kTypes),
                                        [&](const Type& t) { return t.name == name; });
  return type == std::end(kTypes) ? nullptr : type;
}

}  // namespace

bool IsTypeName(std::string_view name) { return FindType(name) != nullptr; }

bool IsOfType(const Value& value, std::string_view type) {
  const Type* const known = FindType(type);
  return known == nullptr || known->matches(value);
}

bool IsLess(const Value& left, const Value& right) {
  if (left.IsInt64() && right.IsInt64()) return left.GetInt64() < right.GetInt64();
  if (left.IsUint64() && right.IsUint64()) return left.GetUint64() < right.GetUint64();
  return left.GetDouble() < right.GetDouble();
}

}  // namespace RyxConfigManager
