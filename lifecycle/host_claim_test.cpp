#include "lifecycle/host_claim.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "lifecycle/access_lock.h"
#include "lifecycle/paths.h"
#include "lifecycle/testing/call_operation.h"
#include "lifecycle/testing/quick_waits.h"
#include "tesselibs/testing/captured_log.h"

namespace LifeCycle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

namespace fs = std::filesystem;

/// The sandboxed host, which nobody has.
class HostClaimTest : public testing::Test {
 protected:
  ~HostClaimTest() override { fs::remove_all(folder_); }

  const QuickWaits waits_;
  const fs::path folder_ = fs::path(kTaskStatusFile).parent_path();
};

TEST_F(HostClaimTest, OfThreadsThatClaimAtOnceOneGetsTheHostAndLetsGo) {
  for (int round = 0; round < 20; ++round) {
    std::vector<std::future<bool>> claims;
    for (const char* id : {"a", "b", "c", "d"}) {
      claims.push_back(std::async(std::launch::async,
                                  [id] { return ClaimHost(kApplyMarker, id, 0) == nullptr; }));
    }
    EXPECT_EQ(std::ranges::count_if(claims, [](auto& claim) { return claim.get(); }), 1);
    const std::string winner = ClaimWords(kApplyMarker).at(1);
    EXPECT_EQ(ReleaseHost(kApplyMarker, "e"), ENOENT);
    EXPECT_EQ(ReleaseHost(kApplyMarker, winner), 0);
    EXPECT_THAT(ClaimWords(kApplyMarker), IsEmpty());
  }
}

TEST_F(HostClaimTest, TriesAgainAfterAFailedWrite) {
  fs::create_directories(folder_);
  fs::create_symlink("/nowhere/file", kTaskSyncFile);  // absent, and gone after it was opened
  CapturedLog log;
  EXPECT_FALSE(ClaimHost(kTaskMarker, "id", 1));
  EXPECT_EQ(log.TakeLines().back(),
            "2 [_CheckTaskContention]: Failed to write to the task sync file in task id: "
            "std::exception, 1 retries left");
  EXPECT_THAT(ClaimWords(kTaskMarker), ElementsAre("PRECURSOR:", "id"));
}

TEST_F(HostClaimTest, SaysWhyTheHostIsNotWon) {
  CapturedLog log;
  EXPECT_EQ(ErrorText(*ClaimHost(kTaskMarker, "id", -1)),
            "not_allowed_in_current_state task.contention");
  EXPECT_THAT(log.TakeLines(), IsEmpty()) << "there was an attempt";
  {
    const AccessLock starter(kTaskSyncFile, 0);
    EXPECT_TRUE(ClaimHost(kTaskMarker, "id", 0));
  }
  fs::remove_all(folder_);
  std::ofstream(folder_) << "no folder";
  EXPECT_TRUE(ClaimHost(kTaskMarker, "id", 0));
  EXPECT_THAT(log.TakeLines(),
              ElementsAre("2 [_CheckTaskContention]: Lock contention in task id, another task is "
                          "starting, 0 retries left",
                          "2 [_CheckTaskContention]: Failed to determine if the task sync file "
                          "exists: Not a directory, 0 retries left"));
}

TEST_F(HostClaimTest, RefusalTakesASecondForEachTryUntilTheProcessStops) {
  using namespace std::chrono_literals;
  ASSERT_FALSE(ClaimHost(kTaskMarker, "other", 0));
  ASSERT_FALSE(ClaimHost(kApplyMarker, "other", 0));
  EXPECT_TRUE(ClaimHost(kTaskMarker, "id", 2));
  EXPECT_THAT(QuickWaits::Taken(), ElementsAre(1s, 1s, 1s));
  EXPECT_TRUE(ClaimHost(kApplyMarker, "id", 0));
  EXPECT_THAT(QuickWaits::Taken(), ElementsAre(1s, 1s, 1s, 0s));
}

}  // namespace
}  // namespace LifeCycle
