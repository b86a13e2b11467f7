#pragma once

#include <filesystem>
#include <memory>

#include "configmanager/module/module.h"

namespace RyxConfigManager {

/// Each folder below it that has a module.json is a module.
inline constexpr char kModulesDirectory[] = "/usr/lib/tessel/configmanager/apply_modules";

/// The modules as they are installed now: read anew when a module.json has changed, came or went.
///
/// A broken module, one that refers to a key that no module has, and modules that refer to each
/// other in a circle are logged at level 2 with what is wrong, and left out. Whether a program can
/// be run is not looked at before it is to run.
///
/// Callable from any thread; a mutex within guards what was read last, and is held while modules
/// are looked for and read.
[[nodiscard]] std::shared_ptr<const ModuleSet> InstalledModules();

/// Reads the modules below a directory, which no other call is told of. Callable from any thread.
[[nodiscard]] std::shared_ptr<const ModuleSet> LoadModules(const std::filesystem::path& directory);

}  // namespace RyxConfigManager
