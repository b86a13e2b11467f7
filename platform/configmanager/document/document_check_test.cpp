#include "configmanager/document/document_check.h"

#include <gmock/gmock.h>
#include <rapidjson/pointer.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "configmanager/document/document_merge.h"
#include "configmanager/exceptions.h"
#include "configmanager/module/module_description.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

using testing::ElementsAreArray;

constexpr char kHost[] = "0a1b2c3d-0000-4000-8000-00000000000a";

constexpr char kModule[] =
    R"({"format": 1, "component": "net", "version": "1", "groups": {"g": {"keys": {
  "link": {"id_property": "name", "default": [{"name": "lo", "mtu": 9000}],
    "references": [{"property": "uplinks", "to": "net/g/port"}],
    "schema": {"type": "object", "additionalProperties": false, "required": ["name", "mtu"], "properties": {
      "name": {"type": "string", "pattern": "^[a-z]+$"},
      "mtu": {"type": "integer", "minimum": 68, "maximum": 9000},
      "weight": {"type": "number"},
      "address": {"type": "string", "host_specific": true},
      "uplinks": {"type": "array", "minItems": 1, "maxItems": 2, "items": {"type": "string"}},
      "nested": {"type": "object", "required": ["a", "b"],
                 "properties": {"a": {"type": "boolean"}, "b": {"type": "object"}}}}}},
  "port": {"id_property": "name", "default": [{"name": "p0"}],
    "schema": {"type": "object", "properties": {"name": {"type": "string"}}}},
  "text": {"schema": {"type": "object", "additionalProperties": {"type": "integer"}, "properties": {
      "mode": {"type": "string", "enum": ["on", "off"]},
      "label": {"type": "string", "minLength": 2, "maxLength": 3}}}},
  "uuid": {"host_specific": true, "schema": {"type": "object"}}}}}})";

class DocumentCheckTest : public testing::Test {
 protected:
  DocumentCheckTest() {
    std::vector<std::unique_ptr<const Module>> modules;
    modules.push_back(ReadModule("/modules/net", kModule));
    modules_ = std::make_unique<const ModuleSet>(std::move(modules));
  }

  [[nodiscard]] ConfigStoreDocument::Document Merge(const std::string& text) const {
    auto document = ConfigStoreDocument::CreateDocument(text);
    MergeDocument(*modules_, kHost, document);
    return document;
  }

  [[nodiscard]] std::string MergedText(const std::string& text) const {
    return JsonDocument::Print(Merge(text).merged(), 0).GetString();
  }

  /// Each violation as "PATH ID ARGUMENT...".
  [[nodiscard]] std::vector<std::string> Check(const std::string& text) const {
    Violations violations;
    CheckDocument(Merge(text), *modules_, kHost, violations);
    std::vector<std::string> lines;
    for (const auto& violation : violations.found()) {
      lines.push_back(violation.path + ' ' + violation.id.substr(kValidationPrefix.size()));
      for (const auto& argument : violation.args) lines.back() += ' ' + argument;
    }
    return lines;
  }

  std::unique_ptr<const ModuleSet> modules_;
};

/// A document with these keys of net/g in its profile and in this host's part.
std::string Keys(const std::string& profile, const std::string& own = "") {
  return R"({"profile": {"net": {"g": {)" + profile + R"(}}}, "host-specific": {")" + kHost +
         R"(": {"net": {"g": {)" + own + "}}}}}";
}

TEST_F(DocumentCheckTest, TellsEveryViolationInTheProfile) {
  struct {
    std::string keys;
    std::vector<std::string> violations;  // "/profile/net/g" goes before each
  } const cases[] = {
      {R"("link": [{"name": "a", "mtu": 68}, {"name": "b", "mtu": 9000.0, "weight": 1e300}])", {}},
      {R"("link": {"name": "a"})", {"/link type.check.failure array"}},
      {R"("link": ["a"])", {"/link/0 type.check.failure object"}},
      {R"("link": [{"mtu": 70}, {"name": "", "mtu": 70}])",
       {"/link/0 missing.instanceId name", "/link/1/name empty.property name",
        "/link/1/name pattern.mismatch ^[a-z]+$"}},
      {R"("link": [{"name": "a", "mtu": 70}, {"name": "a", "mtu": 70}])",
       {"/link/1 duplicate.instanceId a"}},
      {R"("link": [{"name": "a"}])", {"/link/0 missing.required.property mtu"}},
      {R"("link": [{"name": "a", "mtu": 67}, {"name": "b", "mtu": 18446744073709551615}])",
       {"/link/0/mtu min.length 67 68", "/link/1/mtu max.length 18446744073709551615 9000"}},
      {R"("link": [{"name": "a", "mtu": 68, "weight": 9223372036854775808}])",
       {"/link/0/weight max.length 9223372036854775808 9223372036854775807"}},
      {R"("link": [{"name": "a", "mtu": 68.5, "weight": "1"}])",
       {"/link/0/mtu type.check.failure integer", "/link/0/weight type.check.failure number"}},
      {R"("link": [{"name": "a", "mtu": 68, "uplinks": []},
                   {"name": "b", "mtu": 68, "uplinks": ["p0", "p0", 1]}])",
       {"/link/0/uplinks array.min.length 1", "/link/1/uplinks array.max.length 2",
        "/link/1/uplinks/2 type.check.failure string"}},
      {R"("link": [{"name": "a", "mtu": 68, "nested": {"a": 1}, "extra": 1}])",
       {"/link/0/nested/a type.check.failure boolean", "/link/0/nested missing.required.property b",
        "/link/0/extra additional.property"}},
      {R"("link": [{"name": "a", "mtu": 68, "uplinks": ["p0", "p1"]}])",
       {"/link/0/uplinks/1 reference.not-found uplinks net/g/port/p1"}},
      {R"("port": [{"name": "p1"}], "link": [{"name": "a", "mtu": 68, "uplinks": ["p1", "p0"]}])",
       {"/link/0/uplinks/1 reference.not-found uplinks net/g/port/p0"}},
      {R"("text": {"mode": "On", "label": "\u00e9", "n/~": "x"})",
       {"/text/mode invalid.enum.option", "/text/label str.min.length 2",
        "/text/n~1~0 type.check.failure integer"}},
      {R"("text": {"label": "\u00e9\u00e9\u00e9"})", {}},
      {R"("text": {"label": "abcd"})", {"/text/label str.max.length 3"}},
      {R"("text": {"a": null, "b": 1, "b": 2, "b": 3})",
       {"/text/a null.value", "/text/b duplicate.property b", "/text/b duplicate.property b"}},
      {R"("text": null, "text": [])",
       {"/text null.value", " duplicate.property text", "/text type.check.failure object"}},
      {R"("link": [{"name": "a", "mtu": 68, "address": "x"}], "uuid": {})",
       {"/link/0/address invalid.host-specific", "/uuid invalid.host-specific"}},
      {R"("nope": {}, "text": {}}, "h": {"k": 1)",
       {"/nope schema.not-found net g nope", "|/profile/net/h/k schema.not-found net h k"}},
  };
  for (const auto& [keys, expected] : cases) {
    std::vector<std::string> lines;
    for (const auto& line : expected) {
      // A duplicate is told at the place of the members' name.
      if (line[0] == ' ')
        lines.push_back("/profile/net/g/text" + line);
      else
        lines.push_back(line[0] == '|' ? line.substr(1) : "/profile/net/g" + line);
    }
    EXPECT_THAT(Check(Keys(keys)), ElementsAreArray(lines)) << keys;
  }
}

TEST_F(DocumentCheckTest, TellsWhatIsNoDocument) {
  const std::string ok = R"({"net": {"g": {"text": {}}}})";
  struct {
    std::string text;
    std::vector<std::string> violations;
  } const cases[] = {
      {"[]", {"/ type.check.failure object"}},
      {R"({"metadata": {"schema_version": "1.0"}})", {"/ missing.required.property profile"}},
      {R"({"profile": )" + ok + R"(, "metadata": {"schema_version": "2.0"}, "x": 1})",
       {"/metadata/schema_version invalid.enum.option", "/x additional.property"}},
      {R"({"profile": {"net": 1}})", {"/profile/net type.check.failure object"}},
      {R"({"profile": {"net": {"g": []}}})", {"/profile/net/g type.check.failure object"}},
      {R"({"profile": {}, "host-specific": {"other": []}})",
       {"/host-specific/other type.check.failure object"}},
      {R"({"profile": {}, "host-specific": {"other": {"net": {"g": {"text": {"a": ""}}}}}})",
       {"/host-specific/other/net/g/text/a type.check.failure integer"}},
      {R"({"profile": )" + ok + R"(, "host-specific": {")" + kHost +
           R"(": {}, "0A1B2C3D-0000-4000-8000-00000000000A": {}}})",
       {"/host-specific/0A1B2C3D-0000-4000-8000-00000000000A duplicate.property "
        "0A1B2C3D-0000-4000-8000-00000000000A"}},
      {R"({"profile": )" + ok + R"(, "profile": )" + ok + "}",
       {"/profile duplicate.property profile"}},
  };
  for (const auto& [text, expected] : cases)
    EXPECT_THAT(Check(text), ElementsAreArray(expected)) << text;
  for (const char* const empty : {"{}", R"({"profile": {}})", R"({"profile": {"net": {"g": {}}}})"})
    EXPECT_THROW(static_cast<void>(Check(empty)), ConfigManagerException) << empty;
}

TEST_F(DocumentCheckTest, JudgesTheMergeOfThisHost) {
  struct {
    std::string profile, own, merged;
    std::vector<std::string> violations;
  } const cases[] = {
      {R"("link": [{"name": "a"}, {"name": "b", "mtu": 70}])",
       R"("link": [{"name": "c", "mtu": 71}, {"name": "a", "mtu": 68, "address": "x"}])",
       R"("link":[{"name":"a","mtu":68,"address":"x"},{"name":"b","mtu":70},{"name":"c","mtu":71}])",
       {}},
      {R"("link": [{"name": "a", "mtu": 68, "nested": {"a": true}}])",
       R"("link": [{"name": "a", "nested": {"b": {}}}])",
       R"("link":[{"name":"a","mtu":68,"nested":{"a":true,"b":{}}}])",
       {}},
      {R"("link": [{"name": "a", "mtu": 68, "uplinks": ["gone"]}])",
       R"("link": [{"name": "a", "uplinks": ["p1"]}], "port": [{"name": "p1"}])",
       R"("link":[{"name":"a","mtu":68,"uplinks":["p1"]}],"port":[{"name":"p1"}])",
       {}},
      {R"("text": {"mode": "on", "x": 1})",
       R"("text": {"mode": "off"}, "uuid": {})",
       R"("text":{"mode":"off","x":1},"uuid":{})",
       {}},
      {R"("text": {})",
       R"("link": [{"name": "a", "nested": {"b": {}}}])",
       R"("text":{},"link":[{"name":"a","nested":{"b":{}}}])",
       {"/link/0/nested missing.required.property a", "/link/0 missing.required.property mtu"}},
  };
  for (const auto& [profile, own, merged, expected] : cases) {
    const std::string text = Keys(profile, own);
    EXPECT_EQ(MergedText(text), R"({"net":{"g":{)" + merged + "}}}");
    std::vector<std::string> lines;
    for (const auto& line : expected)
      lines.push_back(std::string("/host-specific/") + kHost + "/net/g" + line);
    EXPECT_THAT(Check(text), ElementsAreArray(lines)) << text;
  }
  // Identifiers are told apart by more than their case; other hosts' parts are not merged.
  EXPECT_EQ(MergedText(R"({"host-specific": {"0A1B2C3D-0000-4000-8000-00000000000A": {"a": 1},
                                             "other": {"b": 2}}})"),
            R"({"a":1})");
}

TEST_F(DocumentCheckTest, SurvivesDocumentsMadeOfViolations) {
  std::string nulls = R"("text": {")" + std::string(100'000, 'n') + R"(": [null)";
  for (int i = 0; i < 10'000; ++i) nulls += ",null";
  Violations violations;
  CheckDocument(Merge(Keys(nulls + "]}")), *modules_, kHost, violations);
  EXPECT_LT(violations.found().size(), 100U);
  EXPECT_GT(violations.uncollected(), 9'900U);
}

}  // namespace
}  // namespace RyxConfigManager
