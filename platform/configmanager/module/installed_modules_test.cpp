#include "configmanager/module/installed_modules.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "configmanager/testing/module_folder.h"
#include "tesselibs/testing/captured_log.h"

namespace RyxConfigManager {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

/// A module.json with a list "list" and, among its top members, these.
std::string Description(const std::string& component, const std::string& keys = "",
                        const std::string& members = "") {
  return R"({"format": 1, "version": "1", "component": ")" + component + "\"" + members +
         R"(, "groups": {"g": {"keys": {"list": {"id_property": "id", "schema":
            {"type": "object", "properties": {"id": {"type": "string"}}}})" +
         keys + "}}}}";
}

/// A key that refers to an instance of another.
std::string Referring(const std::string& to) {
  return R"(, "user": {"references": [{"property": "p", "to": ")" + to +
         R"("}], "schema": {"type": "object", "properties": {"p": {"type": "string"}}}})";
}

/// A key with this schema.
std::string Key(const std::string& schema, const std::string& members = "") {
  return R"(, "k": {"schema": )" + schema + members + "}";
}

std::vector<std::string> Components(const ModuleSet& modules) {
  std::vector<std::string> names;
  for (const auto& module : modules.modules()) names.push_back(module->component);
  return names;
}

TEST(ModuleTest, BrokenModulesAreLeftOutAndTold) {
  const std::string property = R"({"type": "object", "properties": {"p": )";
  struct {
    std::string description;
    std::string reason;  // within the logged line
  } const cases[] = {
      {"{", "Failed to parse JSON String: byte 1: Missing a name for object member."},
      {R"({"format": 2})", "The plugin JSON version is not supported: format 2"},
      {R"({"format": 1})", "does not validate against schema: / missing.required.property 'comp"},
      {Description("a", "", R"(, "grops": 1)"), "/grops additional.property"},
      {Description("a", Key("{}", R"(, "defualt": 1)")), "/groups/g/keys/k/defualt additional"},
      {Description("a", "", R"(, "version": "2")"), "/version duplicate.property 'version'"},
      {Description("a", "", R"(, "timeout_seconds": 0)"), "/timeout_seconds min.length '0' '1'"},
      {Description("a b"), "'a b' is no name"},
      {Description("a", "", R"(, "executables": {"read": "bin/../../x"})"), "'bin/../../x' is not"},
      {Description("a", "", R"(, "executables": {"read": "/bin/sh"})"), "'/bin/sh' is not"},
      {Description("a", "", R"(, "executables": {"raed": "x"})"), "/executables/raed additional"},
      {Description("a", Key(R"({"type": "array"})")), "a/g/k: the schema's type is not object"},
      {Description("a", Key(property + R"({"oneOf": []}}})")),
       "schema/properties/p/oneOf is not a"},
      {Description("a", Key(property + R"({"type": ["string"]}}})")), "p/type is not the name"},
      {Description("a", Key(property + R"({"type": "null"}}})")), "p/type is not the name"},
      {Description("a", Key(property + R"({"type": "string", "minimum": 1}}})")),
       "number, integer"},
      {Description("a", Key(property + R"({"type": "string", "pattern": "("}}})")), "missing )"},
      {Description("a", Key(property + R"({"type": "string", "enum": [1]}}})")), "another type"},
      {Description("a", Key(property + R"({"type": "array", "minItems": -1}}})")), "whole number"},
      {Description("a", Key(property + R"({"type": "number", "minimum": 2, "maximum": 1}}})")),
       "p has its maximum below its minimum"},
      {Description("a", Key(R"({"type": "object", "properties": {}, "required": ["x"],
                                "additionalProperties": false})")),
       "required names 'x', which is no property"},
      {Description("a", Key(property + R"({"type": "integer"}}})", R"(, "default": {"p": "1"})")),
       "Invalid value for key a/g/k: default/p type.check.failure 'integer'"},
      {Description("a", Key(R"({"type": "object"})", R"(, "singleton": false)")), "id_property"},
      {Description("a", Key(R"({"type": "object"})", R"(, "id_property": "i")")), "'i' is not a"},
      {Description("a", Referring("a/g")), "'a/g' is not COMPONENT/GROUP/KEY"},
      {Description("a", Referring("a/g/user")), "dependency graph from plugin JSON files. 'p' ref"},
      {Description("sound"), "component 'sound' is that of "},
  };
  for (const auto& [description, reason] : cases) {
    const ModuleFolder folder;
    folder.AddFile("0/module.json", Description("sound"));
    folder.AddFile("1/module.json", description);
    folder.AddFile("no-module/README", "");
    CapturedLog log;
    EXPECT_THAT(Components(*LoadModules(folder.path())), ElementsAre("sound")) << description;
    EXPECT_THAT(log.TakeLines(), ElementsAre(HasSubstr(reason))) << description;
  }
  EXPECT_TRUE(LoadModules("/nonexistent")->modules().empty());
}

TEST(ModuleTest, ModulesComeBehindThoseTheyReferTo) {
  const ModuleFolder folder;
  folder.AddFile("1/module.json", Description("first", Referring("second/g/list")));
  folder.AddFile("2/module.json", Description("second", Referring("third/g/list")));
  folder.AddFile("3/module.json", Description("third", Referring("third/g/list")));
  folder.AddFile("4/module.json", Description("fourth", Referring("fifth/g/list")));
  folder.AddFile("5/module.json", Description("fifth", Referring("fourth/g/list")));
  folder.AddFile("6/module.json", Description("sixth", Referring("fifth/g/list")));
  CapturedLog log;
  EXPECT_THAT(Components(*LoadModules(folder.path())), ElementsAre("third", "second", "first"));
  const auto circle = HasSubstr("Failed to create dependency graph from plugin JSON files.");
  EXPECT_THAT(log.TakeLines(), ElementsAre(circle, circle, circle));
}

}  // namespace
}  // namespace RyxConfigManager
