#include "configmanager/module/description_format.h"

#include <rapidjson/document.h>

#include <memory>
#include <string>

namespace RyxConfigManager {
namespace {

const std::string kGroups = R"({
  "type": "object",
  "additionalProperties": {
    "type": "object", "additionalProperties": false, "required": ["keys"],
    "properties": {
      "description": {"type": "string"},
      "keys": {
        "type": "object",
        "additionalProperties": {
          "type": "object", "additionalProperties": false, "required": ["schema"],
          "properties": {
            "description": {"type": "string"},
            "singleton": {"type": "boolean"},
            "id_property": {"type": "string", "minLength": 1},
            "host_specific": {"type": "boolean"},
            "schema": {"type": "object"},
            "default": {},
            "references": {
              "type": "array",
              "items": {
                "type": "object", "additionalProperties": false, "required": ["property", "to"],
                "properties": {"property": {"type": "string"}, "to": {"type": "string"}}}},
            "requires": {
              "type": "object", "additionalProperties": false,
              "properties": {"maintenance_mode": {"type": "boolean"},
                             "reboot": {"type": "boolean"}}}}}}}}})";

const std::string kModule = R"({
  "type": "object", "additionalProperties": false,
  "required": ["format", "component", "version", "groups"],
  "properties": {
    "format": {"type": "integer"},
    "component": {"type": "string"},
    "version": {"type": "string", "minLength": 1},
    "description": {"type": "string"},
    "executables": {
      "type": "object", "additionalProperties": false,
      "properties": {"validate": {"type": "string"}, "impact": {"type": "string"},
                     "read": {"type": "string"}, "apply": {"type": "string"}}},
    "timeout_seconds": {"type": "integer", "minimum": 1, "maximum": 86400},
    "groups": )" + kGroups + "}}";

const std::string kSection = R"({
  "type": "object",
  "additionalProperties": {"type": "object", "additionalProperties": {"type": "object"}}})";

const std::string kDocument = R"({
  "type": "object", "additionalProperties": false, "required": ["profile"],
  "properties": {
    "metadata": {
      "type": "object", "additionalProperties": false, "required": ["schema_version"],
      "properties": {"schema_version": {"type": "string", "enum": ["1.0"]},
                     "reference_host": {"type": "string"}}},
    "profile": )" + kSection + R"(,
    "host-specific": {"type": "object", "additionalProperties": )" +
                              kSection + "}}}";

/// A schema that is written here.
struct Format {
  explicit Format(const std::string& text) {
    description.Parse(text.c_str());
    schema = ReadSchema(description);
  }

  rapidjson::Document description;
  std::unique_ptr<const Schema> schema;
};

}  // namespace

const Schema& ModuleFormat() {
  static const Format format(kModule);
  return *format.schema;
}

const Schema& DocumentFormat() {
  static const Format format(kDocument);
  return *format.schema;
}

}  // namespace RyxConfigManager
