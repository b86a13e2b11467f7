#pragma once

#include "configmanager/schema/schema.h"

/// The forms of the documents that the configuration manager reads. Callable from any thread.
namespace RyxConfigManager {

/// The value of "format" in module.json.
inline constexpr int kModuleFormatVersion = 1;

/// The version of documents and of their schemas.
inline constexpr char kSchemaVersion[] = "1.0";

/// module.json, but for names and for what "schema" and "default" hold.
[[nodiscard]] const Schema& ModuleFormat();

/// The schema of a host's documents, as GenerateHostDocumentSchema tells it:
///
///     {"schema_version": "1.0",
///      "components": {"COMPONENT": {"version": "", "description": "", "groups": {}}}}
///
/// with the version, description and groups of the component's module.json.
[[nodiscard]] const Schema& HostSchemaFormat();

/// A configuration document, but for its keys.
[[nodiscard]] const Schema& DocumentFormat();

}  // namespace RyxConfigManager
