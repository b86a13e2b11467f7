#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "configmanager/config_manager.h"
#include "configmanager/testing/test_modules.h"
#include "configstore/store.h"
#include "tesselibs/testing/captured_log.h"

namespace RyxConfigManager {
namespace {

using testing::HasSubstr;

class ConcurrencyTest : public testing::Test {
 protected:
  void SetUp() override {
    auto store = RyxConfigStore::Store::FromPath();
    store->Change([entries = store->GetAll()](RyxConfigStore::Store::Transaction& transaction) {
      for (const auto& e : entries) transaction.Delete(e.address, e.instance);
    });
  }

  static void Apply(const std::string& profile) {
    Document document = ConfigStoreDocument::CreateDocument(R"({"profile":)" + profile + "}");
    CreateMergedDocument(GenerateHostDocumentSchema(document), document);
    try {
      EXPECT_TRUE(RyxConfigManager::Apply(CheckApply(std::move(document), nullptr), nullptr)
                      .errors.empty());
    } catch (const InvalidImpact&) {
      // A key was set between the check and the apply.
    }
  }

  TestModules modules_;
  CapturedLog log_;
};

/// Two operations that change one module at once would undo each other's changes: what is stored
/// and what is effective would be two things in the end.
TEST_F(ConcurrencyTest, WhatIsStoredIsEffectiveAfterChangesAtOnce) {
  constexpr int kChanges = 6;
  modules_.SetBehaviour("zone", R"({"apply":{"alone":true}})");
  const auto setKey = [](const std::string& key, int tries) {
    for (int i = 0; i < tries; ++i) {
      const std::string value = R"({"name":")" + key + std::to_string(i) + "\"}";
      EXPECT_NO_THROW(SetConfig("zone", "id", key, value, nullptr));
      const std::string stored = GetCurrentConfig("zone", "id", key);
      EXPECT_TRUE(stored.empty() || stored == value) << stored;
    }
  };
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i)
    readers.emplace_back([&done] {
      while (!done) {
        EXPECT_THAT(ExportDocument(), HasSubstr("host-specific"));
        (void)GetCurrentConfig("net", "lan", "profiles");
        ImpactResult impact;
        Impact(ConfigStoreDocument::CreateDocument("{}"), impact, nullptr);
      }
    });
  std::vector<std::thread> writers;
  for (const char* const key : {"name", "label"})
    writers.emplace_back([&setKey, key] { setKey(key, kChanges); });
  for (int i = 0; i < kChanges; ++i)
    Apply(R"({"time":{"ntp":{"leap":{"m":)" + std::to_string(i) + "}}}}");
  for (std::thread& writer : writers) writer.join();
  done = true;
  for (std::thread& reader : readers) reader.join();

  for (const char* const key : {"name", "label"}) {
    const std::string stored = GetCurrentConfig("zone", "id", key);
    const std::string value = stored.empty() ? "null" : stored;
    EXPECT_THAT(modules_.State("zone"), HasSubstr(std::string("\"id/") + key + "\":" + value));
  }
}

/// A daemon that stops waits for none of its request threads.
TEST_F(ConcurrencyTest, AnOperationEndsWhateverItWaitsForWhenItIsTo) {
  const std::filesystem::path begun = "/tmp/begun";
  std::atomic<bool> abort{false};
  TaskInput task;
  task.isAbortRequested = [&abort] { return abort.load(); };
  modules_.SetBehaviour("zone", R"({"apply":{"touch":"/tmp/begun","hang":true}})");
  std::vector<std::thread> threads;
  threads.emplace_back(
      [&] { EXPECT_THROW(SetConfig("zone", "id", "label", R"({"a":1})", &task), Aborted); });
  while (!std::filesystem::exists(begun)) std::this_thread::yield();
  std::filesystem::remove(begun);
  // Waits for its turn.
  threads.emplace_back(
      [&] { EXPECT_THROW(SetConfig("time", "ntp", "leap", R"({"a":1})", &task), Aborted); });
  modules_.SetBehaviour("net", R"({"read":{"touch":"/tmp/begun","hang":true}})");
  threads.emplace_back([&] { EXPECT_THROW((void)ExportDocument(&task), Aborted); });
  while (!std::filesystem::exists(begun)) std::this_thread::yield();
  std::filesystem::remove(begun);
  abort = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(GetCurrentConfig("zone", "id", "label") + GetCurrentConfig("time", "ntp", "leap"), "");
}

}  // namespace
}  // namespace RyxConfigManager
