#pragma once

#include <rapidjson/document.h>

#include "configmanager/module/module.h"
#include "configmanager/schema/document_path.h"
#include "configmanager/schema/value_check.h"
#include "configmanager/schema/violations.h"

namespace RyxConfigManager {

/// Collects what a key refuses in its value: an object, or a list of instances. Takes time in
/// proportion to the value. Callable from any thread.
/// @param other  see CheckValue
void CheckKey(const rapidjson::Value& value, const rapidjson::Value* other,
              const KeyDefinition& key, Section section, const DocumentPath& path,
              Violations& violations);

}  // namespace RyxConfigManager
