#include <gmock/gmock.h>
#include <sys/resource.h>

#include <future>

#include "lifecycle/paths.h"
#include "orbi/data/message.h"
#include "software/service_fixture_test.h"

namespace LifeCycle {
namespace {

using testing::HasSubstr;

const std::string kHelper = "/usr/lib/tessel/lifecycle/bin/lifecyclectl.py";
const std::string kConfiguration = R"("configuration":{"a":{"b c":123}})";
const std::string kImage = R"("image":{"base_image":{"version":"8"},"components":{}})";
const std::string kContention = "not_allowed_in_current_state lifecycle.task.contention";
const std::string kUnknown = "internal_server_error apply.unknown.error";

class HostApply : public ServiceFixture {
 protected:
  HostApply() {
    signal(SIGXFSZ, SIG_IGN);
    std::filesystem::create_directories(std::filesystem::path(kHelper).parent_path());
    std::ofstream(kHelper) << "#!/usr/bin/python\n";
    std::filesystem::permissions(kHelper, std::filesystem::perms::owner_all);
    Behave({});
  }
  std::string Set(const std::string& fields) {
    return Call("hosts.settings set$task", "{" + fields + "}");
  }
  std::string Log() { return testing::PrintToString(log_.TakeLines()); }
};

TEST_F(HostApply, HelperIsStartedOnTheRecordedTaskAndTheGivenDocuments) {
  const std::string config = " --config-doc {2}/config-{1}", document = " {\"a\":{\"b c\":123}}\n",
                    started = "lifecycle.apply.pid PRECURSOR: {1}\ntask-status.json {\"{1}\":{}}\n";
  const std::string cases[][3] = {
      {kConfiguration, config, "config-{1}" + document + started},
      {R"("depots":["http://h/;$x"],)" + kImage + "," + kConfiguration,
       " --depot-doc {2}/depots-{1}" + config + " --image-doc {2}/image-{1}",
       "config-{1}" + document + "depots-{1} [\"http://h/;$x\"]\n" +
           "image-{1} {\"base_image\":{\"version\":\"8\"},\"components\":{}}\n" + started},
  };
  for (const auto& [input, options, files] : cases) {
    ForgetTasks();
    Behave({});
    const std::vector<std::string> words{Set(input).substr(1, 36), kTaskDirectory};
    const std::string arguments = Orbi::Data::FillPlaceholders(
        " --apply --task-id {1} --cleanup-interval 7200" + options, words);
    EXPECT_EQ(HelperWords(), WordsOf(arguments, kHelper));
    EXPECT_THAT(Log(), HasSubstr("\"5 [Set]: Running task: " + kHelper +
                                 " ++group=kestreld-task-forks,mem=250,stats " + arguments + "\""));
    EXPECT_EQ(TaskFiles(), Orbi::Data::FillPlaceholders(files, words));
  }
}

TEST_F(HostApply, FullDiskKeepsNoneOfTheFiles) {
  const struct {
    rlim_t file_size;  ///< no file can grow beyond
    std::string error, log;
  } cases[] = {
      {10, kUnknown, "2 [WriteToFile] Failed to write to file: "},
      {40, kContention, "2 [Set]: Failed to write to the pid file"},
  };
  for (const auto& [file_size, error, log] : cases) {
    const rlimit lower{file_size, RLIM_INFINITY};
    rlimit usual{};
    prlimit(0, RLIMIT_FSIZE, &lower, &usual);
    EXPECT_EQ(Set(R"("depots":["d"],)" + kConfiguration), error) << log;
    prlimit(0, RLIMIT_FSIZE, &usual, nullptr);
    EXPECT_THAT(Log(), HasSubstr(log));
    EXPECT_EQ(TaskFiles(), "");
  }
}

TEST_F(HostApply, OfSimultaneousAppliesTheRefusedOnesLeaveNothing) {
  auto second = std::async(std::launch::async, [this] { return Set(kConfiguration); });
  const std::string answers[] = {Set(kConfiguration), second.get()};
  EXPECT_EQ(std::ranges::count(answers, kContention), 1);
  EXPECT_EQ(std::ranges::count(TaskFiles(), '\n'), 3) << TaskFiles();
  EXPECT_NE(HelperWords(), "");
}

}  // namespace
}  // namespace LifeCycle
