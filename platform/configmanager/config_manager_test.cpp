#include "configmanager/config_manager.h"

#include <SQLiteCpp/Database.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <vector>

#include "configmanager/testing/test_modules.h"
#include "configstore/store.h"
#include "tesselibs/testing/captured_log.h"

namespace RyxConfigManager {
namespace {

using RyxConfigStore::Store;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kMaintenanceMode[] = "/var/run/tessel/maintenance-mode";
constexpr char kServers[] = R"({"time":{"ntp":{"servers":{"server":["a"]}}}})";
constexpr char kThree[] = R"({"net":{"lan":{"profiles":[{"name":"p"}]}},
  "time":{"ntp":{"servers":{"server":["a"],"profile":"p"}}},"zone":{"id":{"links":[{"name":"l"}]}}})";

class ConfigManagerTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories("/var/run/tessel");
    store_->Change([entries = store_->GetAll()](Store::Transaction& transaction) {
      for (const auto& e : entries) transaction.Delete(e.address, e.instance);
    });
  }
  void TearDown() override { std::filesystem::remove(kMaintenanceMode); }

  static Document Parse(const std::string& text) {
    Document document = ConfigStoreDocument::CreateDocument(text);
    const auto schema = GenerateHostDocumentSchema(document);
    CreateMergedDocument(schema, document);
    return document;
  }
  static Document Profile(const std::string& profile) {
    return Parse(R"({"metadata":{"schema_version":"1.0"},"profile":)" + profile + "}");
  }

  /// Each impact as "KIND KEY", and each error's id.
  static std::string ImpactOf(const Document& document) {
    constexpr const char* kKinds[] = {"add", "set", "delete", "reboot", "maintenance"};
    ImpactResult result;
    Impact(document, result, nullptr);
    std::string text;
    for (const ImpactInfo& i : result.impacts) {
      text +=
          std::string(kKinds[static_cast<int>(i.kind)]) + (i.key.empty() ? "" : " ") + i.key + "; ";
    }
    for (const ErrorInfo& error : result.errors) text += error.id + "; ";
    return text;
  }

  /// @return what failed, as "ID ARGUMENT"
  static std::vector<std::string> ApplyDocument(Document document,
                                                const TaskInput* task = nullptr) {
    std::vector<std::string> failed;
    const auto checked = CheckApply(std::move(document), task);
    for (const ErrorInfo& e : RyxConfigManager::Apply(checked, task).errors) {
      failed.push_back(e.id + (e.args.empty() ? "" : " " + e.args[0]));
    }
    return failed;
  }

  /// The stored values, a line for each.
  [[nodiscard]] std::string Stored() const {
    std::string text;
    for (const auto& e : store_->GetAll()) {
      text += e.address.key + (e.instance.empty() ? " " : " " + e.instance + " ") + e.value + "\n";
    }
    return text;
  }

  /// Each setting that does not comply, as "KEY INSTANCE EFFECTIVE -> DESIRED".
  static std::string DriftFrom(const Document& document) {
    ComplianceResult result;
    CheckCompliance(document, result, nullptr);
    std::string text = result.status == ComplianceStatus::kNonCompliant ? "non-compliant: "
                       : result.status == ComplianceStatus::kCompliant  ? ""
                                                                        : "unavailable: ";
    for (const auto& s : result.settings) {
      if (s.status == ComplianceStatus::kCompliant) continue;
      text += s.key + " " + s.instance + " " + s.effective + " -> " + s.desired + "; ";
      for (const auto& message : s.messages) text += message.id + "; ";
    }
    return text;
  }

  TestModules modules_;
  std::shared_ptr<Store> store_ = Store::FromPath();
  CapturedLog log_;
};

TEST_F(ConfigManagerTest, ImpactAndComplianceTellWhatIsNotAsTheDocumentHasIt) {
  const struct {
    const char* applied;    // before
    const char* component;  // whose state is changed behind the manager's back
    const char* state;
    const char* document;
    const char* impact;
    const char* drift;
  } cases[] = {
      {kServers, "", "", kServers, "", ""},
      // Properties that are left out have their default, on either side.
      {kServers, "", "", R"({"time":{"ntp":{"servers":{"enabled":false,"server":["a"]}}}})", "",
       ""},
      {kServers, "time", R"({"ntp/servers":{"server":["a"],"note":"its own"}})", kServers, "", ""},
      {kServers, "time", R"({"ntp/servers":{"server":["b"]}})", kServers, "set servers; reboot; ",
       R"(non-compliant: servers  {"server":["b"]} -> {"server":["a"]}; )"},
      {kServers, "time", R"({"ntp/servers":{"server":["a"],"enabled":true}})", kServers,
       "set servers; reboot; ",
       R"(non-compliant: servers  {"server":["a"],"enabled":true} -> {"server":["a"]}; )"},
      {R"({"time":{"ntp":{"servers":{"server":["a"],"note":"n"}}}})", "", "", kServers,
       "set servers; reboot; ",
       R"(non-compliant: servers  {"server":["a"],"note":"n"} -> {"server":["a"]}; )"},
      // What the document does not name has its default.
      {kServers, "", "", R"({"time":{"ntp":{"leap":{"m":1}}}})",
       "add leap; delete servers; reboot; ",
       R"(non-compliant: leap   -> {"m":1}; servers  {"server":["a"]} -> ; )"},
      {kServers, "time", R"({"ntp/servers":{"server":["a"]},"ntp/leap":{"m":2}})", kServers,
       "delete leap; ", R"(non-compliant: leap  {"m":2} -> ; )"},
      {R"({"time":{"ntp":{"leap":{"m":1}}}})", "time",
       R"({"ntp/leap":{"m":1},"ntp/servers":{"server":["x"]}})",
       R"({"time":{"ntp":{"leap":{"m":1}}}})", "set servers; reboot; ",
       R"(non-compliant: servers  {"server":["x"]} -> {"server":["pool"],"enabled":false}; )"},
      {R"({"net":{"lan":{"profiles":[{"name":"x","mtu":1},{"name":"y"},{"name":"z"}]}}})", "", "",
       R"({"net":{"lan":{"profiles":[{"name":"z"},{"name":"x","mtu":2},{"name":"w"}]}}})",
       "add profiles; set profiles; delete profiles; ",
       R"(non-compliant: profiles x {"name":"x","mtu":1} -> {"name":"x","mtu":2}; )"
       R"(profiles w  -> {"name":"w"}; profiles y {"name":"y"} -> ; )"},
      {R"({"zone":{"id":{"links":[]}}})", "", "", R"({"zone":{"id":{"links":[]}}})", "", ""},
      {R"({"zone":{"id":{"links":[]}}})", "", "", kServers, "add servers; add links; reboot; ",
       R"(non-compliant: servers  {"server":["pool"],"enabled":false} -> {"server":["a"]}; links d  -> {"name":"d"}; )"},
      {kServers, "", "",
       R"({"time":{"ntp":{"servers":{"server":["a"]}}},"zone":{"id":{"kernel":{"level":1}}}})",
       "add kernel; maintenance; ", R"(non-compliant: kernel   -> {"level":1}; )"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.applied) + c.document + c.state);
    EXPECT_THAT(ApplyDocument(Profile(c.applied)), IsEmpty());
    if (*c.component != '\0') modules_.SetState(c.component, c.state);
    EXPECT_EQ(ImpactOf(Profile(c.document)), c.impact);
    EXPECT_EQ(DriftFrom(Profile(c.document)), c.drift);
    std::ofstream file(kMaintenanceMode);
    EXPECT_THAT(ApplyDocument(Profile(c.document)), IsEmpty());
    EXPECT_EQ(ImpactOf(Profile(c.document)), "");
    EXPECT_EQ(DriftFrom(Profile(c.document)), "");
  }
}

TEST_F(ConfigManagerTest, AModuleThatFailsKeepsItsOldValuesAndTheOthersAreApplied) {
  EXPECT_THAT(ApplyDocument(Profile(kServers)), IsEmpty());
  const std::string old = Stored();
  const struct {
    const char* behaviour;
    const char* failure;
  } cases[] = {
      {R"({"apply":{"exit":1}})", "com.tessel.ryx.settings.apply.plugin.failed time"},
      {R"({"apply":{"print":"no"}})", "com.tessel.ryx.settings.apply.plugin.unexpected.error time"},
      {R"({"apply":{"answer":{"errors":[{"id":"x.unreachable","args":["a"]}]}}})",
       "x.unreachable a"},
      {R"({"impact":{"exit":1}})", "com.tessel.ryx.settings.impact.plugin.failed time"},
      {R"({"read":{"answer":{"values":{"ntp/servers":[]}}}})",
       "com.tessel.ryx.settings.impact.plugin.unexpected.error time"},
      {R"({"read":{"answer":{"values":{},"errors":[{"id":"x.y","args":["b"]}]}}})", "x.y b"},
  };
  for (const auto& c : cases) {
    modules_.SetBehaviour("time", c.behaviour);
    EXPECT_THAT(ApplyDocument(Profile(kThree)), ElementsAre(c.failure));
    EXPECT_EQ(Stored(), "profiles p {\"name\":\"p\"}\n" + old + "links l {\"name\":\"l\"}\n");
    EXPECT_EQ(modules_.State("time"), R"({"ntp/servers":{"server":["a"]}})");
    modules_.SetBehaviour("time", "");
    EXPECT_THAT(ApplyDocument(Profile(kServers)), IsEmpty());
    EXPECT_EQ(Stored(), old);
  }
  modules_.SetBehaviour("time", R"({"read":{"exit":1}})");
  EXPECT_EQ(DriftFrom(Profile(kServers)),
            "unavailable: servers   -> {\"server\":[\"a\"]}; "
            "com.tessel.ryx.settings.impact.plugin.failed; ");
}

TEST_F(ConfigManagerTest, ModulesAreToldWhatTheyReferToBeforeAndLoseItAfter) {
  EXPECT_THAT(ApplyDocument(Profile(kThree)), IsEmpty());
  EXPECT_EQ(modules_.TakeCalls(),
            "net profiles add p {\"name\":\"p\"}\n"
            "time servers add - {\"server\":[\"a\"],\"profile\":\"p\"}\n"
            "zone links add l {\"name\":\"l\"}\nzone links delete d null\n");
  EXPECT_THAT(ApplyDocument(Profile(R"({"net":{"lan":{"profiles":[{"name":"q"}]}},
      "time":{"ntp":{"servers":{"server":["a"],"profile":"q"}}}})")),
              IsEmpty());
  EXPECT_EQ(modules_.TakeCalls(),
            "net profiles add q {\"name\":\"q\"}\n"
            "time servers set - {\"server\":[\"a\"],\"profile\":\"q\"}\n"
            "zone links add d {\"name\":\"d\"}\nzone links delete l null\n"
            "net profiles delete p null\n");
  // What still refers to something keeps it.
  modules_.SetBehaviour("time", R"({"apply":{"exit":1}})");
  EXPECT_THAT(
      ApplyDocument(Profile(R"({"net":{"lan":{"profiles":[]}},"time":{"ntp":{"leap":{}}}})")),
      ElementsAre("com.tessel.ryx.settings.apply.plugin.failed time",
                  "com.tessel.ryx.settings.apply.plugin.failed net"));
  EXPECT_EQ(modules_.State("net"), R"({"lan/profiles":[{"name":"q"}]})");
  // What is not there is not referred to.
  modules_.SetBehaviour("time", "");
  modules_.SetBehaviour("net", R"({"apply":{"exit":1}})");
  EXPECT_THAT(ApplyDocument(Profile(kThree)),
              ElementsAre("com.tessel.ryx.settings.apply.plugin.failed net",
                          "com.tessel.ryx.settings.apply.plugin.failed time"));
  EXPECT_THAT(modules_.State("time"), HasSubstr(R"("profile":"q")"));
  EXPECT_THAT(Stored(), HasSubstr("links l "));
}

TEST_F(ConfigManagerTest, WhatWasCheckedIsAppliedOnlyToTheHostThatItWasCheckedOn) {
  const auto checked = CheckApply(Profile(R"({"zone":{"id":{"kernel":{"level":1}}}})"), nullptr);
  EXPECT_EQ(checked->specId.size(), 36U);
  EXPECT_THROW((void)RyxConfigManager::Apply(checked, nullptr), HostNotInMM);
  std::ofstream(kMaintenanceMode).close();
  // Nothing that is to be changed, but not what it was.
  modules_.SetState("net", R"({"lan/profiles": [{"name": "q", "mtu": 1}]})");
  EXPECT_THROW((void)RyxConfigManager::Apply(checked, nullptr), InvalidImpact);
  modules_.SetState("net", "{}");
  modules_.SetBehaviour("zone", R"({"impact":{"answer":{"impact":["reboot"]}}})");
  EXPECT_THROW((void)RyxConfigManager::Apply(checked, nullptr), InvalidImpact);
  EXPECT_EQ(Stored() + modules_.TakeCalls(), "");
  modules_.SetBehaviour("zone", "");
  EXPECT_THAT(RyxConfigManager::Apply(checked, nullptr).errors, IsEmpty());
  EXPECT_EQ(Stored(), "kernel {\"level\":1}\n");
  EXPECT_THROW((void)RyxConfigManager::Apply(nullptr, nullptr), ConfigManagerException);
}

TEST_F(ConfigManagerTest, AnApplyAfterACrashBetweenModuleAndStoreConverges) {
  for (const char* before : {R"({"zone":{"id":{"links":[{"name":"l"}]}}})",
                             R"({"time":{"ntp":{"servers":{"server":["old"]}}}})"}) {
    EXPECT_THAT(ApplyDocument(Profile(before)), IsEmpty());
    modules_.SetState("time", R"({"ntp/servers":{"server":["a"]}})");
    (void)modules_.TakeCalls();
    EXPECT_THAT(ApplyDocument(Profile(kServers)), IsEmpty());
    // The module may not have come to its end: it has to do it again.
    EXPECT_THAT(modules_.TakeCalls(), HasSubstr("time servers "));
    EXPECT_EQ(Stored(), "servers {\"server\":[\"a\"]}\n");
    EXPECT_EQ(ImpactOf(Profile(kServers)) + DriftFrom(Profile(kServers)), "");
    EXPECT_THAT(ApplyDocument(Profile(kServers)), IsEmpty());
    EXPECT_EQ(modules_.TakeCalls(), "");
  }
}

TEST_F(ConfigManagerTest, AnAbortedApplyLeavesWholeModulesAndGoesOnLater) {
  std::vector<unsigned> progress;
  TaskInput task{"task", 10, 90, [&](unsigned percent) { progress.push_back(percent); }, {}};
  const std::filesystem::path begun = "/tmp/begun";
  modules_.SetBehaviour("time", R"({"apply":{"touch":"/tmp/begun","hang":true}})");
  task.isAbortRequested = [&] { return std::filesystem::exists(begun); };
  EXPECT_THROW((void)ApplyDocument(Profile(kThree), &task), Aborted);
  EXPECT_EQ(Stored(), "profiles p {\"name\":\"p\"}\n");
  EXPECT_EQ(modules_.State("time"), "");
  std::filesystem::remove(begun);
  modules_.SetBehaviour("time", "");
  progress.clear();
  const auto checked = CheckApply(Profile(kThree), nullptr);
  EXPECT_THAT(RyxConfigManager::Apply(checked, &task).errors, IsEmpty());
  EXPECT_TRUE(std::ranges::is_sorted(progress));
  EXPECT_EQ(progress.front(), 10U);
  EXPECT_EQ(progress.back(), 90U);
  EXPECT_GT(std::set(progress.begin(), progress.end()).size(), 6U);
}

TEST_F(ConfigManagerTest, WhatCannotBeRecordedIsBroughtBack) {
  EXPECT_THAT(ApplyDocument(Profile(kServers)), IsEmpty());
  const auto checked =
      CheckApply(Profile(R"({"time":{"ntp":{"servers":{"server":["b"]}}}})"), nullptr);
  SQLite::Database other(RyxConfigStore::kStorePath, SQLite::OPEN_READWRITE, 5000);
  other.exec("CREATE TRIGGER refuse BEFORE INSERT ON entries BEGIN SELECT RAISE(ABORT, 'no'); END");
  (void)modules_.TakeCalls();
  EXPECT_THROW((void)RyxConfigManager::Apply(checked, nullptr),
               RyxConfigStore::ConfigStoreException);
  other.exec("DROP TRIGGER refuse");
  EXPECT_EQ(modules_.TakeCalls(),
            "time servers set - {\"server\":[\"b\"]}\n"
            "time servers set - {\"server\":[\"a\"]}\n");
  EXPECT_EQ(ImpactOf(Profile(kServers)), "");
}

TEST_F(ConfigManagerTest, AnExportIsTheHost) {
  const std::string document = R"({"metadata":{"schema_version":"1.0"},"profile":{
      "net":{"lan":{"profiles":[{"name":"p","mtu":1},{"name":"q"}]}},"zone":{"id":{"links":[]}}},
      "host-specific":{")" + GetBIOSUUID() +
                               R"(":{"net":{"lan":{"profiles":[{"name":"p","address":"::1"}]}},
      "zone":{"id":{"name":{"name":"me"}}}}}})";
  EXPECT_THAT(ApplyDocument(Parse(document)), IsEmpty());
  modules_.SetState("time", R"({"ntp/servers": {"server": ["drifted"]}})");
  const std::string exported = ExportDocument();
  EXPECT_EQ(exported,
            R"({"metadata":{"schema_version":"1.0","reference_host":")" + GetBIOSUUID() +
                R"("},"profile":{"net":{"lan":{"profiles":[{"name":"p","mtu":1},{"name":"q"}]}},)"
                R"("time":{"ntp":{"servers":{"server":["drifted"]}}},"zone":{"id":{"links":[]}}},)"
                R"("host-specific":{")" +
                GetBIOSUUID() +
                R"(":{"net":{"lan":{"profiles":[{"address":"::1","name":"p"}]}},)"
                R"("zone":{"id":{"name":{"name":"me"}}}}}})");
  EXPECT_EQ(ImpactOf(Parse(exported)) + DriftFrom(Parse(exported)), "");
  EXPECT_THAT(ApplyDocument(Profile(R"({"time":{"ntp":{"leap":{}}}})")), IsEmpty());
  EXPECT_NE(ExportDocument(), exported);
  EXPECT_THAT(ApplyDocument(Parse(exported)), IsEmpty());
  EXPECT_EQ(ExportDocument(), exported);
}

TEST_F(ConfigManagerTest, KeysAreSetReadAndDeletedAlone) {
  const auto get = [](const char* component, const char* group, const char* key) {
    return GetCurrentConfig(component, group, key);
  };
  EXPECT_EQ(get("time", "ntp", "servers"), "");
  SetConfig("net", "lan", "profiles",
            R"({"instances":[{"name":"p","address":"::1"},{"name":"q"}]})", nullptr);
  EXPECT_EQ(get("net", "lan", "profiles"),
            R"({"instances":[{"name":"p","address":"::1"},{"name":"q"}]})");
  SetConfig("time", "ntp", "servers", R"({"server":["a"],"profile":"p"})", nullptr);
  EXPECT_EQ(get("time", "ntp", "servers"), R"({"server":["a"],"profile":"p"})");
  SetConfig("zone", "id", "links", R"({"instances":[]})", nullptr);
  EXPECT_EQ(get("zone", "id", "links"), R"({"instances":[]})");
  EXPECT_EQ(modules_.State("zone"), R"({"id/links":[]})");
  const std::string stored = Stored();
  (void)modules_.TakeCalls();
  const struct {
    const char* component;
    const char* key;
    const char* value;  // nullptr deletes
    const char* problem;
  } cases[] = {
      {"time/ntp", "clock", "{}", "Schema object not found: time/ntp/clock"},
      {"none/ntp", "clock", nullptr, "Schema object not found: none/ntp/clock"},
      {"time/ntp", "servers", "garbage", "Failed to parse JSON String"},
      {"time/ntp", "servers", "[]", "type.check.failure 'object' at /time/ntp/servers"},
      {"time/ntp", "servers", R"({"server":["a",7]})",
       "type.check.failure 'string' at /time/ntp/servers/server/1"},
      {"time/ntp", "servers", R"({"server":["a"],"server":[]})", "duplicate.property 'server'"},
      {"time/ntp", "servers", R"({"server":null})", "null.value at /time/ntp/servers/server"},
      {"time/ntp", "servers", R"({"server":["a"],"profile":"none"})",
       "reference.not-found 'profile' 'net/lan/profiles/none'"},
      {"net/lan", "profiles", R"({"name":"p"})", "Not a Singleton object: net/lan/profiles"},
      {"net/lan", "profiles", R"({"instances":[{"name":"p"},{"name":"p"}]})",
       "duplicate.instanceId 'p'"},
      {"net/lan", "profiles", R"({"instances":[{"name":"q"}]})", "reference.not-found 'profile'"},
      {"net/lan", "profiles", nullptr, "reference.not-found 'profile'"},
      {"time/ntp", "leap", nullptr,
       "time/ntp/leap: com.tessel.ryx.settings.validation.invalid.delete.default"},
  };
  for (const auto& c : cases) {
    const std::string place = c.component;
    const std::string component = place.substr(0, place.find('/'));
    const std::string group = place.substr(place.find('/') + 1);
    try {
      if (c.value == nullptr) {
        DeleteConfig(component, group, c.key, nullptr);
      } else {
        SetConfig(component, group, c.key, c.value, nullptr);
      }
      ADD_FAILURE() << c.problem;
    } catch (const InvalidArgumentException& refusal) {
      EXPECT_THAT(refusal.what(), HasSubstr(c.problem));
    }
  }
  EXPECT_THROW(SetConfig("zone", "id", "kernel", R"({"level":1})", nullptr), HostNotInMM);
  modules_.SetBehaviour("time", R"({"validate":{"answer":{"errors":[{"id":"x.y"}]}}})");
  EXPECT_THROW(SetConfig("time", "ntp", "leap", R"({"a":1})", nullptr), InvalidArgumentException);
  modules_.SetBehaviour("time", R"({"apply":{"exit":1}})");
  EXPECT_THROW(DeleteConfig("time", "ntp", "servers", nullptr),
               RyxConfigStore::ConfigStoreException);
  EXPECT_EQ(Stored(), stored);
  modules_.SetBehaviour("time", "");
  for (const char* key : {"time/ntp/servers", "net/lan/profiles", "zone/id/links"}) {
    const std::filesystem::path path = key;
    DeleteConfig(path.begin()->string(), std::next(path.begin())->string(), path.filename(),
                 nullptr);
  }
  EXPECT_EQ(Stored(), "");
  EXPECT_EQ(modules_.State("zone"), R"({"id/links":[{"name":"d"}]})");
}

TEST_F(ConfigManagerTest, WhatAnotherVersionOfAModuleHadInAnotherFormDoesNotCount) {
  const auto file = std::filesystem::path(kModulesDirectory) / "net/module.json";
  const struct {
    const char* version;  // what becomes of the module's description
    const char* value;
    const char* call;
    const char* stored;
  } cases[] = {
      {"s/\"name\"/\"id\"/g", R"([{"id":"p"}])", "net profiles add p {\"id\":\"p\"}\n",
       "profiles p {\"id\":\"p\"}\n"},
      {"s/\"id_property\": \"name\", //", R"({"name":"p"})",
       "net profiles add - {\"name\":\"p\"}\n", "profiles {\"name\":\"p\"}\n"},
  };
  for (const auto& c : cases) {
    SetConfig("net", "lan", "profiles",
              R"({"instances":[{"name":"p","address":"::1"},{"name":"q"}]})", nullptr);
    modules_.SetState("net", "{}");
    (void)modules_.TakeCalls();
    ASSERT_EQ(std::system(("sed -i.old '" + std::string(c.version) + "' " + file.string()).c_str()),
              0);
    EXPECT_EQ(GetCurrentConfig("net", "lan", "profiles"), "");
    EXPECT_THAT(ExportDocument(), Not(HasSubstr("::1")));
    EXPECT_THAT(
        ApplyDocument(Profile(R"({"net":{"lan":{"profiles":)" + std::string(c.value) + "}}}")),
        IsEmpty());
    EXPECT_EQ(modules_.TakeCalls(), c.call);
    EXPECT_EQ(Stored(), c.stored);
    std::filesystem::rename(file.string() + ".old", file);
    modules_.SetState("net", "{}");
  }
}

}  // namespace
}  // namespace RyxConfigManager
