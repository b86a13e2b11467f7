#include "configmanager/module/plugin.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include "configmanager/exceptions.h"
#include "configmanager/testing/module_folder.h"
#include "tesselibs/json_document.h"
#include "tesselibs/testing/captured_log.h"

namespace RyxConfigManager {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

class PluginTest : public testing::Test {
 protected:
  PluginAnswer Run(const std::string& script, const TaskInput* task = nullptr) {
    module_.component = "time";
    module_.executables.apply = folder_.AddProgram("it's_a_\"program\"", script);
    return RunPlugin(module_, PluginOperation::kApply, changes_, task);
  }

  ModuleFolder folder_;
  Module module_;  // waits for a minute
  std::vector<Change> changes_;
  CapturedLog log_;
};

TEST_F(PluginTest, MillionErrorsAreNotAllKept) {
  const PluginAnswer answer =
      Run(R"(printf '{"errors": ['; yes '{"id":"a"},' | head -n 1000000; printf '{"id":"b"}]}')");
  EXPECT_EQ(answer.errors.size(), 1'024U);
  EXPECT_THAT(log_.TakeLines(), Contains(HasSubstr("998977 more errors")));
}

TEST_F(PluginTest, WhatIsWrongWithAProgramTellsItsKind) {
  const struct {
    const char* script;
    const char* kind;
    const char* reason;
  } cases[] = {
      {"echo '{}'; exit 3", "failed", "ended with exit status 3"},
      {"kill -SEGV $$", "unexpected.error", "Segmentation fault"},
      {"sleep 600", "unexpected.error", "did not end within 100 ms"},
      {"trap '' TERM; while :; do sleep 600; done", "unexpected.error", "did not end within"},
      {"yes | head -c 17000000", "unexpected.error", "wrote more than 16777216 bytes"},
      {"", "unexpected.error", "The document is empty"},
      {"echo garbage", "unexpected.error", "Invalid value"},
      {"echo []", "unexpected.error", "no object"},
      {"printf '{\"values\": {\"a\": \"\\377\"}}'", "unexpected.error", "Invalid encoding"},
      {"printf '{\"a\": \"\\360'", "unexpected.error", "Missing a closing quotation mark"},
      {"printf '[\"\\\\udc80\"]'", "unexpected.error", "Invalid encoding"},
      {"printf '[2%0100d.5e300]'", "unexpected.error", "Number too big"},
      {"head -c 500 /dev/zero | tr '\\0' '['", "unexpected.error", ""},
      {"head -c 5000000 /dev/zero | tr '\\0' '['", "unexpected.error", ""},
      {"echo '{\"errors\": [{}]}'", "unexpected.error", "an error without an id"},
      {"echo '{\"errors\": [{\"id\": \"x\", \"args\": [1]}]}'", "unexpected.error", "no text"},
      {"echo '{\"impact\": [\"explosion\"]}'", "unexpected.error", "an unknown impact"},
      {"echo '{\"values\": []}'", "unexpected.error", "\"values\" is no object"},
  };
  for (const auto& c : cases) {
    const bool isLate = std::string(c.reason).starts_with("did not end");
    module_.timeout = isLate ? 100ms : 60s;
    const PluginAnswer answer = Run(c.script);
    ASSERT_TRUE(answer.failure) << c.script;
    EXPECT_EQ(answer.failure->id, std::string("com.tessel.ryx.settings.apply.plugin.") + c.kind);
    EXPECT_THAT(answer.failure->args, ElementsAre("time"));
    EXPECT_THAT(answer.failure->reason, HasSubstr(c.reason)) << c.script;
    EXPECT_THAT(log_.TakeLines(), Contains("2 " + answer.failure->reason));
  }
  for (const auto& program :
       {folder_.path() / "missing", folder_.AddFile("plain", "#!/bin/sh\n")}) {
    module_.executables.read = program;
    const PluginAnswer answer = RunPlugin(module_, PluginOperation::kRead, {}, nullptr);
    ASSERT_TRUE(answer.failure);
    EXPECT_EQ(answer.failure->id, "com.tessel.ryx.settings.impact.plugin.unexpected.error");
  }
}

TEST_F(PluginTest, AProgramReadsItsRequestAndIsUnderstood) {
  // Larger than any pipe: the program writes all of its answer before it has read all of it.
  const std::string large(300000, 'x');
  rapidjson::Document value;
  value.SetObject().AddMember("server", rapidjson::StringRef(large.c_str()), value.GetAllocator());
  KeyDefinition singleton, instances;
  singleton.address = {"time", "ntp", "servers"};
  instances.address = {"time", "ntp", "profiles"};
  instances.singleton = false;
  changes_ = {{&singleton, ChangeAction::kSet, "", nullptr, &value},
              {&instances, ChangeAction::kDelete, "a", &value, nullptr}};
  TaskInput task;
  task.taskId = "the task";

  const PluginAnswer answer =
      Run("exec python3 -c '\n"
          "import json, sys\n"
          "print(\"{\\\"impact\\\": [\\\"reboot\\\"],\", end=\" \" * 1000000, flush=True)\n"
          "request = json.load(sys.stdin)\n"
          "for line in range(2000): print(\"oh\", file=sys.stderr)\n"
          "for change in request[\"changes\"]:\n"
          "  for side in \"old\", \"new\": change[side] = change[side] and "
          "len(change[side][\"server\"])\n"
          "print(\"\\\"values\\\": {\\\"request\\\": \" + json.dumps(request, sort_keys=True) + "
          "\"},\")\n"
          "print(\"\\\"errors\\\": [{\\\"id\\\": \\\"x.y\\\", \\\"args\\\": [\\\"1\\\"], "
          "\\\"path\\\": \\\"/p\\\"}]}\")'",
          &task);
  ASSERT_FALSE(answer.failure) << answer.failure->reason;
  EXPECT_STREQ(
      JsonDocument::Print(answer.values["request"], 1000).GetString(),
      R"({"changes":[{"action":"set","group":"ntp","id":null,"key":"servers","new":300000,"old":null},)"
      R"({"action":"delete","group":"ntp","id":"a","key":"profiles","new":null,"old":300000}],)"
      R"("component":"time","operation":"apply","task_id":"the task"})");
  EXPECT_TRUE(answer.needsReboot);
  EXPECT_FALSE(answer.needsMaintenanceMode);
  ASSERT_EQ(answer.errors.size(), 1U);
  EXPECT_EQ(answer.errors[0].id + answer.errors[0].args.at(0) + answer.errors[0].path, "x.y1/p");
  const auto lines = log_.TakeLines();
  EXPECT_THAT(lines, testing::SizeIs(testing::Lt(1800U)));
  EXPECT_THAT(lines.back(), HasSubstr("(more is not logged)"));
}

TEST_F(PluginTest, NothingThatAProgramStartedOutlivesIt) {
  std::atomic<bool> abort{false};
  TaskInput task;
  task.isAbortRequested = [&] { return abort.load(); };
  const std::string file = folder_.path() / "pid";
  const std::string child = "(trap '' TERM; while :; do sleep 1; done) & echo $! > " + file +
                            ".new; mv " + file + ".new " + file + "; ";
  for (const char* ending : {"echo '{}'", "wait", "exit 1"}) {
    std::filesystem::remove(file);
    abort = false;
    // Only the program that waits is still there to be ended.
    std::thread client([&] {
      while (!std::filesystem::exists(file)) std::this_thread::yield();
      abort = std::string(ending) == "wait";
    });
    if (std::string(ending) == "wait") {
      EXPECT_THROW((void)Run(child + ending, &task), Aborted);
    } else {
      (void)Run(child + ending, &task);
    }
    client.join();
    pid_t pid = 0;
    std::ifstream(file) >> pid;
    ASSERT_GT(pid, 0);
    // The system may take a moment to clear away what was ended.
    for (int i = 0; i < 2000 && kill(pid, 0) == 0; ++i) {
      std::string state;
      std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
      stat >> state >> state >> state;
      if (state == "Z") break;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      ASSERT_LT(i, 1999) << ending;
    }
  }
}

}  // namespace
}  // namespace RyxConfigManager
