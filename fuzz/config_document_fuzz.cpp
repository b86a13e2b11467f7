// Whatever a configuration document is, merging and checking it ends; each violation names a place
// that the document has; and what a document asks of the host, handed in as the host's own part, is
// as valid as the document.

#include <rapidjson/pointer.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "configmanager/document/document_check.h"
#include "configmanager/document/document_merge.h"
#include "configmanager/exceptions.h"
#include "configmanager/module/module_description.h"
#include "fuzz/target.h"
#include "tesselibs/json_document.h"

namespace {

using ConfigStoreDocument::Document;

constexpr char kHost[] = "H";

constexpr char kModule[] =
    R"({"format": 1, "component": "c", "version": "1", "groups": {"g": {"keys": {
  "l": {"id_property": "i", "default": [{"i": "d"}], "references": [{"property": "r", "to": "c/g/l"}],
    "schema": {"type": "object", "additionalProperties": false, "required": ["i"], "properties": {
      "i": {"type": "string", "pattern": "^[a-z]+$", "maxLength": 3},
      "n": {"type": "integer", "minimum": -1, "maximum": 9},
      "h": {"type": "string", "minLength": 1, "host_specific": true},
      "r": {"type": "array", "minItems": 1, "maxItems": 2, "items": {"type": "string"}},
      "o": {"type": "object", "required": ["a"], "properties": {"a": {"type": "object"}}}}}},
  "s": {"schema": {"type": "object", "additionalProperties": {"type": "number"},
    "properties": {"e": {"enum": ["on", 1]}, "b": {"type": "boolean"}}}},
  "h": {"host_specific": true, "schema": {"type": "object"}}}}}})";

const RyxConfigManager::ModuleSet& Modules() {
  static const RyxConfigManager::ModuleSet modules = [] {
    std::vector<std::unique_ptr<const RyxConfigManager::Module>> read;
    read.push_back(RyxConfigManager::ReadModule("/m", kModule));
    return RyxConfigManager::ModuleSet(std::move(read));
  }();
  return modules;
}

/// @return whether the document is valid
bool MergeAndCheck(Document& document) {
  RyxConfigManager::MergeDocument(Modules(), kHost, document);
  RyxConfigManager::Violations violations;
  RyxConfigManager::CheckDocument(document, Modules(), kHost, violations);
  const bool hasDuplicates = std::any_of(
      violations.found().begin(), violations.found().end(),
      [](const auto& violation) { return violation.id.ends_with("duplicate.property"); });
  for (const auto& violation : violations.found()) {
    if (hasDuplicates) break;  // a path leads to the first of them
    const std::string path = violation.path == "/" ? "" : violation.path;
    if (path.find('\0') != std::string::npos) continue;  // where RapidJSON's pointers end a name
    const rapidjson::Pointer pointer(path.data(), path.size());
    Require(pointer.IsValid() && pointer.Get(document.root()) != nullptr);
  }
  return violations.empty();
}

}  // namespace

void Check(const std::string& input) {
  try {
    Document document = ConfigStoreDocument::CreateDocument(input);
    if (!MergeAndCheck(document)) return;
    const auto merged = JsonDocument::Print(document.merged(), 0);
    if (document.merged().ObjectEmpty()) return;
    Document own = ConfigStoreDocument::CreateDocument(
        R"({"profile": {}, "host-specific": {"H": )" + std::string(merged.GetString()) + "}}");
    Require(MergeAndCheck(own));
    Require(own.merged() == document.merged());
  } catch (const RyxConfigStore::StatusError&) {
    // No JSON, or a document without any key.
  }
}
