#pragma once

#include "configmanager/schema/schema.h"

/// The forms of the documents that the configuration manager reads. Callable from any thread.
namespace RyxConfigManager {

/// The value of "format" in module.json.
inline constexpr int kModuleFormatVersion = 1;

/// The version of documents.
inline constexpr char kSchemaVersion[] = "1.0";

/// module.json, but for names and for what "schema" and "default" hold.
[[nodiscard]] const Schema& ModuleFormat();

/// A configuration document, but for its keys.
[[nodiscard]] const Schema& DocumentFormat();

}  // namespace RyxConfigManager
