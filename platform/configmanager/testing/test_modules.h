#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "configmanager/module/module.h"

/// Modules for tests, at the place where the manager looks for them. Each keeps what is in force in
/// its file "state", as JSON, and notes what it is told to do in the modules' common file "calls".
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

  /// Python code that a module's program runs before it does its work; it knows `operation`,
  /// `changes`, `state` and `answer`.
  void SetBehaviour(const std::string& component, const std::string& code) const {
    std::ofstream(root_ / component / "behaviour") << code;
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
  static constexpr char kProgram[] = R"(#!/usr/bin/python3 -IS
import json, os, sys, time
folder = os.path.dirname(os.path.abspath(__file__))
request = json.load(sys.stdin)
operation, changes, answer = request["operation"], request["changes"], {}
try: state = json.load(open(folder + "/state"))
except FileNotFoundError: state = {}
if operation == "apply":
    with open(folder + "/../calls", "a") as calls:
        for change in changes:
            words = request["component"], change["key"], change["action"], change["id"] or "-", json.dumps(change["new"])
            print(*words, file=calls)
if os.path.exists(folder + "/behaviour"): exec(open(folder + "/behaviour").read())
if operation == "read": answer.setdefault("values", state)
if operation == "apply" and not answer.get("errors"):
    for change in changes:
        name, new = change["group"] + "/" + change["key"], change["new"]
        if change["id"] is None: state[name] = new
        else:
            others = [value for value in state.get(name, []) if value["name"] != change["id"]]
            state[name] = others + [new] * (new is not None)
    with open(folder + "/new", "w") as file: json.dump(state, file)
    os.rename(folder + "/new", folder + "/state")
print(json.dumps(answer))
)";

  void Add(const std::string& component, const std::string& groups) const {
    const auto folder = root_ / component;
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "program") << kProgram;
    std::filesystem::permissions(folder / "program", std::filesystem::perms::owner_all);
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
