#include "software/software_tasks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <tuple>

#include "lifecycle/paths.h"
#include "orbi/data/message.h"
#include "software/service_fixture_test.h"

namespace LifeCycle {
namespace {

using testing::Contains;

const std::string kTaskDocument = "/var/tessel/lifecycle/swspec-{1}";

const std::string kSpec = R"({"base_image":{"version":"8.0-1"},"components":{"net":{}}})";
const std::string kTwoDepots =
    R"({"depots":["http://h/{3};x","/e"],"software_spec":)" + kSpec + "}";

using SoftwareTasks = ServiceFixture;

TEST_F(SoftwareTasks, HelperIsStartedOnTheRecordedTaskAndItsDocument) {
  const std::string specOption = " --software-spec ";
  const std::tuple<const char*, std::string, std::string> cases[] = {
      // {1} is the task
      {"kestrel_daemon.software apply$task", kTwoDepots,
       " software --apply --task-id {1} --depot http://h/{3};x --depot /e" + specOption +
           kTaskDocument},
      {"kestrel_daemon.software scan$task", kTwoDepots,
       " software --scan" + specOption + kScanDocument +
           " --depot http://h/{3};x --depot /e --task-id {1}"},
      {"kestrel_daemon.components apply$task",
       R"({"depots":["d"],"components":{"y":"2.0","x":"1.0"}})",
       "components --apply --task-id {1} --depot d --component x:1.0 --component y:2.0"},
      {"kestrel_daemon.solutions remove$task", R"({"solutions":["s","t u"]})",
       "solutions --remove --task-id {1} --name s --name t u"},
  };
  for (const auto& [call, input, pattern] : cases) {
    SCOPED_TRACE(call);
    ForgetTasks();
    Behave({});
    const std::string answer = Call(call, input);
    ASSERT_EQ(answer.size(), 38U) << answer;
    const std::string id = answer.substr(1, 36);
    const std::string arguments = Orbi::Data::FillPlaceholders(pattern, {id});

    EXPECT_EQ(HelperWords(), WordsOf(arguments));
    EXPECT_THAT(log_.TakeLines(), Contains("5 [RunTask]: Executing command: /usr/bin/python "
                                           "++group=kestreld-task-forks,mem=250,stats "
                                           "/usr/lib/tessel/lifecycle/bin/imagemanagerctl.py " +
                                           arguments));
    EXPECT_EQ(ReadFile(kTaskSyncFile), "PRECURSOR: " + id);
    EXPECT_NE(ReadFile(kTaskStatusFile).find(id), std::string::npos);
    if (const auto at = arguments.find(specOption); at != std::string::npos) {
      std::istringstream path(arguments.substr(at + specOption.size()));
      EXPECT_EQ(ReadFile(*std::istream_iterator<std::string>(path)), kSpec);
    }
  }
}

}  // namespace
}  // namespace LifeCycle
