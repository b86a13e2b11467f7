#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "configmanager/module/installed_modules.h"

/// Modules for tests, at the place where the manager looks for them. Each keeps what is effective
/// in its file "state", as JSON, and notes what it is told to do in the modules' common file
/// "calls".
class TestModules {
 public:
  TestModules() {
    Clear();
    Add("net", R"("lan": {"keys": {"profiles": {"id_property": "name", "schema": {"type": "object",
        "required": ["name"], "additionalProperties": false, "properties": {"name": {"type": "string"},
        "mtu": {"type": "integer"}, "address": {"type": "string", "host_specific": true}}}}}})");
    Add("time", R"("ntp": {"keys": {
        "servers": {"singleton": true, "default": {"server": ["pool"], "enabled": false},
          "references": [{"property": "profile", "to": "net/lan/profiles"}], "requires": {"reboot": true},
          "schema": {"type": "object", "required": ["server"], "additionalProperties": false,
            "properties": {"server": {"type": "array", "items": {"type": "string"}},
              "enabled": {"type": "boolean"}, "profile": {"type": "string"}, "note": {"type": "string"}}}},
        "leap": {"singleton": true, "schema": {"type": "object"}}}})");
    Add("zone", R"("id": {"keys": {
        "name": {"singleton": true, "host_specific": true, "schema": {"type": "object"}},
        "label": {"singleton": true, "schema": {"type": "object"}},
        "kernel": {"singleton": true, "schema": {"type": "object"}, "requires": {"maintenance_mode": true}},
        "links": {"id_property": "name", "default": [{"name": "d"}], "schema": {"type": "object",
          "properties": {"name": {"type": "string"}}}}}})");
  }
  TestModules(const TestModules&) = delete;
  TestModules& operator=(const TestModules&) = delete;
  ~TestModules() { Clear(); }

  void SetState(const std::string& component, const std::string& state) const {
    std::ofstream(root_ / component / "state") << state;
  }

  /// Tells a module's program what to do otherwise than work.
  /// @param behaviour  JSON: for each operation {"exit": STATUS}, {"print": TEXT},
  ///                   {"answer": {}}, {"refuse": ID}, which answers the old value of the first
  ///                   change as the argument, {"touch": FILE, "hang": true}, or
  ///                   {"alone": true}, which fails when another program does that at once
  void SetBehaviour(const std::string& component, const std::string& behaviour) const {
    std::ofstream(root_ / component / "behaviour") << behaviour;
  }

  /// @return what modules were told to do since the last call, a line for each change
  [[nodiscard]] std::string TakeCalls() const {
    std::ifstream file(root_ / "calls");
    std::string calls((std::istreambuf_iterator<char>(file)), {});
    std::filesystem::remove(root_ / "calls");
    return calls;
  }

  [[nodiscard]] std::string State(const std::string& component) const {
    std::ifstream file(root_ / component / "state");
    return {(std::istreambuf_iterator<char>(file)), {}};
  }

 private:
  void Add(const std::string& component, const std::string& groups) const {
    const auto folder = root_ / component;
    std::filesystem::create_directories(folder);
    std::filesystem::create_symlink(TEST_MODULE, folder / "program");
    std::ofstream(folder / "module.json")
        << R"({"format": 1, "component": ")" << component << R"(", "version": "1.0", "groups": {)"
        << groups
        << R"(}, "executables": {"validate": "program", "impact": "program", "read": "program", "apply": "program"}})";
  }

  void Clear() const {
    std::filesystem::create_directories(root_);
    for (const auto& entry : std::filesystem::directory_iterator(root_)) {
      std::filesystem::remove_all(entry);
    }
  }

  const std::filesystem::path root_ = RyxConfigManager::kModulesDirectory;
};
