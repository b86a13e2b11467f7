#pragma once

#include <rapidjson/document.h>

#include <span>
#include <string>

#include "configmanager/module/module.h"
#include "configmanager/results.h"

namespace RyxConfigManager {

/// Tells of each error where it is: key and instance, and the path as a JSON Pointer into the
/// document. Modules name instances by their ids and know of no sections; what such a path leads to
/// is looked for in the document, in the host's own section first. A path that leads to no key is
/// left as it is. Callable from any thread.
/// @param root  the document as it was given
void LocateErrors(std::span<ErrorInfo> errors, const ModuleSet& modules,
                  const rapidjson::Value& root, const std::string& host);

}  // namespace RyxConfigManager
