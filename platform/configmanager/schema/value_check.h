#pragma once

#include <rapidjson/document.h>

#include "configmanager/schema/document_path.h"
#include "configmanager/schema/schema.h"
#include "configmanager/schema/violations.h"

/// Collecting what is wrong with values. Functions without state, callable from any thread. Time
/// grows linearly with them. Null values, and members of one name, are found by CheckWellFormed
/// only. Arguments of the messages are what their texts name; where a text has {2} only, as for a
/// number beyond its bound, {1} is the value that was given.
namespace RyxConfigManager {

/// The part of a document that a value stands in.
enum class Section { kProfile, kHostSpecific };

/// Collects every null and every further member of a name that its object has already, at any
/// depth.
void CheckWellFormed(const rapidjson::Value& value, const DocumentPath& path,
                     Violations& violations);

/// Collects what a schema refuses in a value.
/// @param other  what the document's other section has for the same value, which is merged with it;
///               nullptr when nothing. A required property may stand in either; when it is in
///               neither, that is told of the profile, or of the only one that there is.
void CheckValue(const rapidjson::Value& value, const rapidjson::Value* other, const Schema& schema,
                Section section, const DocumentPath& path, Violations& violations);

}  // namespace RyxConfigManager
