#pragma once

#include "configmanager/module/module.h"
#include "configstore/document.h"

namespace RyxConfigManager {

/// The schema of the documents of a host with these modules, in the form of HostSchemaFormat.
[[nodiscard]] ConfigStoreDocument::Document DescribeKeys(const ModuleSet& modules);

}  // namespace RyxConfigManager
