#pragma once

#include <rapidjson/document.h>

#include <string>

#include "configmanager/module/module.h"
#include "configstore/document.h"

/// Functions without state, callable from any thread.
namespace RyxConfigManager {

/// CreateMergedDocument for the host of this identifier. Whatever shape the document has, time and
/// memory grow linearly with it; of members of one name, and of instances of one id, the first
/// counts. Properties that are objects are merged in turn, lists are not.
/// @param modules  tell which keys have instances
void MergeDocument(const ModuleSet& modules, const std::string& host,
                   ConfigStoreDocument::Document& document);

/// Whether a section of "host-specific" is a host's: identifiers may be written in either case.
[[nodiscard]] bool IsSectionOf(const std::string& host, const rapidjson::Value& name);

/// What a document tells of one host only: the first section that is the host's, nullptr when there
/// is none.
[[nodiscard]] const rapidjson::Value* FindHostSection(const rapidjson::Value& root,
                                                      const std::string& host);

}  // namespace RyxConfigManager
