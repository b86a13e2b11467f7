#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

/// A folder for a test's modules and their programs, gone with this object.
class ModuleFolder {
 public:
  ModuleFolder() {
    char name[] = "/tmp/modules-XXXXXX";
    path_ = mkdtemp(name);
  }
  ModuleFolder(const ModuleFolder&) = delete;
  ModuleFolder& operator=(const ModuleFolder&) = delete;
  ~ModuleFolder() { std::filesystem::remove_all(path_); }

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

  std::filesystem::path AddFile(const std::string& name, const std::string& content) const {
    auto file = path_ / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << content;
    return file;
  }

  /// A shell script.
  std::filesystem::path AddProgram(const std::string& name, const std::string& script) const {
    auto file = AddFile(name, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    return file;
  }

 private:
  std::filesystem::path path_;
};
