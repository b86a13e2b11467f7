#include "configmanager/error_codes.h"

namespace RyxConfigManager {

const std::unordered_map<std::int32_t, const char*> CMErrorCodes = {
    {2001, "Failed to connect to ConfigStore"},
    {2021, "Schema object not found: %s"},
    {2022, "Not a Singleton object: %s"},
    {2023, "The desired configuration document is empty."},
    {2024, "The Apply API was invoked without valid input."},
    {2025, "The impact result is not applicable anymore."},
    {2026, "The host must be in maintenance mode for apply to proceed."},
    {2080, "Failed to parse JSON String"},
    {2180, "Failed to access SchemaStore"},
    {2081, "The plugin JSON does not validate against schema: %s"},
    {2082, "The plugin JSON version is not supported: %s"},
    {2083, "Failed to create dependency graph from plugin JSON files."},
    {2084, "Invalid value for key %s"},
};

}  // namespace RyxConfigManager
