#include "configmanager/module/installed_modules.h"

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <mutex>
#include <system_error>

#include "configmanager/exceptions.h"
#include "configmanager/module/module_description.h"
#include "tesselibs/json_document.h"
#include "tesselibs/log.h"

namespace RyxConfigManager {
namespace {

using Modules = std::vector<std::unique_ptr<const Module>>;

/// What tells one state of a module.json from another.
struct Stamp {
  std::filesystem::path folder;
  dev_t device;
  ino_t inode;
  off_t size;
  std::int64_t modified;  // nanoseconds
  std::int64_t changed;

  auto operator<=>(const Stamp&) const = default;
};

std::int64_t Nanoseconds(const timespec& time) {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

/// Every module.json below a directory, in the order of the folders' names.
std::vector<Stamp> FindModules(const std::filesystem::path& directory) {
  std::vector<Stamp> found;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    struct stat file;
    if (stat((entry->path() / "module.json").c_str(), &file) != 0) continue;
    found.push_back({entry->path(), file.st_dev, file.st_ino, file.st_size,
                     Nanoseconds(file.st_mtim), Nanoseconds(file.st_ctim)});
  }
  if (error && error != std::errc::no_such_file_or_directory)
    Log_Level(LogLevel::kCritical, "Cannot read the configuration modules in %s: %s\n",
              directory.c_str(), error.message().c_str());
  std::sort(found.begin(), found.end());
  return found;
}

std::string ReadDescription(const std::filesystem::path& path) {
  // A pipe would never let go of who opens it, and a device has no end.
  if (!std::filesystem::is_regular_file(path))
    throw DescriptionError(CMErrorCode::kBadDescription, "module.json is not a regular file");
  if (std::filesystem::file_size(path) > JsonDocument::kMaxDocumentSize)
    throw DescriptionError(CMErrorCode::kBadDescription, "module.json is too large");
  std::ifstream file(path, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(file)), {});
  if (!file) throw DescriptionError(CMErrorCode::kBadDescription, "module.json cannot be read");
  return text;
}

void LogLeftOut(const std::filesystem::path& folder, CMErrorCode code, const std::string& detail) {
  std::string reason = ConfigManagerException(code, {detail}).what();
  if (reason.find(detail) == std::string::npos)
    reason += (reason.back() == '.' ? " " : ": ") + detail;
  Log_Level(LogLevel::kCritical, "Configuration module %s is left out: %s\n", folder.c_str(),
            reason.c_str());
}

void AddModule(const std::filesystem::path& folder, Modules& modules) {
  try {
    auto module = ReadModule(folder, ReadDescription(folder / "module.json"));
    for (const auto& other : modules) {
      if (other->component == module->component)
        throw DescriptionError(
            CMErrorCode::kBadDescription,
            "component '" + module->component + "' is that of " + other->folder.string());
    }
    modules.push_back(std::move(module));
  } catch (const DescriptionError& error) {
    LogLeftOut(folder, error.code(), error.what());
  } catch (const std::filesystem::filesystem_error& error) {
    LogLeftOut(folder, CMErrorCode::kBadDescription, error.code().message());
  }
}

/// Whether a reference leads to a key with instances of one of these modules, or of its own.
bool IsMet(const Reference& reference, const Module& own, const Modules& others) {
  const auto hasTarget = [&](const Module& module) {
    if (module.component != reference.target.component) return false;
    const auto key = module.keys.find({reference.target.group, reference.target.key});
    return key != module.keys.end() && !key->second.singleton;
  };
  return hasTarget(own) || std::any_of(others.begin(), others.end(),
                                       [&](const auto& module) { return hasTarget(*module); });
}

const Reference* FindUnmet(const Module& module, const Modules& placed) {
  for (const auto& [name, key] : module.keys) {
    for (const Reference& reference : key.references)
      if (!IsMet(reference, module, placed)) return &reference;
  }
  return nullptr;
}

/// Puts modules behind those that they refer to, and leaves out those for which there is no place.
Modules OrderByReference(Modules modules) {
  Modules placed;
  for (bool progress = true; progress;) {
    progress = false;
    for (auto& module : modules) {
      if (module == nullptr || FindUnmet(*module, placed) != nullptr) continue;
      placed.push_back(std::move(module));
      progress = true;
    }
  }
  for (const auto& module : modules) {
    if (module == nullptr) continue;
    const Reference& reference = *FindUnmet(*module, placed);
    const auto& [component, group, key] = reference.target;
    LogLeftOut(module->folder, CMErrorCode::kNoDependencyGraph,
               "'" + reference.property + "' refers to " + component + '/' + group + '/' + key +
                   ", which is no list, is not there, or depends on this module");
  }
  return placed;
}

std::shared_ptr<const ModuleSet> Load(const std::vector<Stamp>& found) {
  Modules modules;
  for (const Stamp& stamp : found) AddModule(stamp.folder, modules);
  return std::make_shared<const ModuleSet>(OrderByReference(std::move(modules)));
}

}  // namespace

std::shared_ptr<const ModuleSet> InstalledModules() {
  static std::mutex mutex;
  static std::vector<Stamp> stamps;                 // guarded by the mutex
  static std::shared_ptr<const ModuleSet> modules;  // guarded by the mutex

  // Looked for under the lock as well: a slower thread would put what it saw in the place of what a
  // faster one has seen after it.
  const std::lock_guard lock(mutex);
  auto found = FindModules(kModulesDirectory);
  if (modules == nullptr || found != stamps) {
    modules = Load(found);
    stamps = std::move(found);
  }
  return modules;
}

std::shared_ptr<const ModuleSet> LoadModules(const std::filesystem::path& directory) {
  return Load(FindModules(directory));
}

}  // namespace RyxConfigManager
