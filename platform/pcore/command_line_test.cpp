#include "pcore/command_line.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "pcore/host_ctl_exception.h"
#include "pcore/resource_group.h"

namespace {

using HostCtl::Lib::HostCtlException;
using Words = std::vector<std::string>;

TEST(CommandLineTest, WordsAreSplitByTheQuotingRulesOfTheShell) {
  const std::pair<const char*, Words> cases[] = {
      {"/bin/true", {"/bin/true"}},
      {" \t/bin/a  b\nc ", {"/bin/a", "b", "c"}},
      {"a 'b  c'd '' \"\"", {"a", "b  cd", "", ""}},
      {R"(a "b \" \\ \$ \x 'c'" \  \'\x)", {"a", R"(b " \ $ \x 'c')", " ", "'x"}},
      {"a b\\\nc \"d\\\ne\" \\\n f", {"a", "bc", "de", "f"}},
      {R"('a\' "b")", {"a\\", "b"}},
      {"a;b |c $(d) `e` *.f ~ # > &g", {"a;b", "|c", "$(d)", "`e`", "*.f", "~", "#", ">", "&g"}},
      {"a \xc3\xa4 \x01", {"a", "\xc3\xa4", "\x01"}},
  };
  for (const auto& [line, words] : cases) EXPECT_EQ(PcoreCtl::SplitCommandLine(line), words);
}

TEST(CommandLineTest, LinesWithoutOneMeaningAreRefused) {
  using namespace std::string_view_literals;
  for (const std::string_view line :
       {""sv, " \t"sv, "a 'b"sv, "a \"b"sv, "a b\\"sv, "a \"b\\\""sv, "a\0b"sv, "'a\0'"sv}) {
    try {
      PcoreCtl::SplitCommandLine(line);
      ADD_FAILURE() << line;
    } catch (const HostCtlException& error) {
      EXPECT_EQ(error.code().value(), EINVAL) << error.what();
    }
  }
}

TEST(ResourceGroupTest, TheDirectiveIsTakenFromAmongTheWords) {
  Words words = {"/usr/bin/python", "script", "++group=kestreld-task-forks,mem=250,stats", "++x"};
  const auto group = PcoreCtl::TakeResourceGroup(words);
  EXPECT_EQ(words, (Words{"/usr/bin/python", "script", "++x"}));
  ASSERT_TRUE(group);
  EXPECT_EQ(group->name, "kestreld-task-forks");
  EXPECT_EQ(group->memoryLimit, 250U * 1024 * 1024);
  EXPECT_TRUE(group->logUsage);

  words = {"a", "+group=x", "++groups=x", "x++group=x"};
  EXPECT_FALSE(PcoreCtl::TakeResourceGroup(words));
  EXPECT_EQ(words.size(), 4U);
}

TEST(ResourceGroupTest, AMalformedDirectiveIsRefused) {
  for (const char* directive :
       {"++group=", "++group=..", "++group=a/b", "++group=,mem=1", "++group=a,",
        "++group=a,mem=", "++group=a,mem=0", "++group=a,mem=-1", "++group=a,mem=+1",
        "++group=a,mem=1x", "++group=a,mem= 1", "++group=a,mem=99999999999999999999",
        "++group=a,mem=17592186044417", "++group=a,,stats", "++group=a,status"}) {
    Words words = {"a", directive};
    EXPECT_THROW(PcoreCtl::TakeResourceGroup(words), HostCtlException) << directive;
  }
  Words two = {"a", "++group=a", "++group=b"};
  EXPECT_THROW(PcoreCtl::TakeResourceGroup(two), HostCtlException);
}

// A control-group tree with a memory controller cannot be had everywhere: plain files stand for it.
class CgroupTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(mount_ / "service/daemon/forks");
    Write("membership", "4:memory:/elsewhere\n0::/service/daemon\n");
    for (const char* file : {"memory.max", "cgroup.procs"}) {
      Write(std::string("service/daemon/forks/") + file, "");
    }
  }
  void TearDown() override { std::filesystem::remove_all(mount_); }

  void Write(const std::string& file, const std::string& text) const {
    std::ofstream(mount_ / file) << text;
  }
  [[nodiscard]] std::optional<std::string> Find() const {
    return PcoreCtl::FindDelegatedCgroup(mount_ / "membership", mount_);
  }

  const std::filesystem::path mount_ =
      testing::TempDir() + "cgroup_test." + std::to_string(getpid());
};

TEST_F(CgroupTest, OnlyAGroupThatHandsMemoryDownOrIsDelegatedIsUsed) {
  Write("service/cgroup.subtree_control", "cpu memory\n");
  Write("service/daemon/cgroup.subtree_control", "memory_like cpu\n");
  EXPECT_EQ(Find(), std::nullopt) << "the group above is the service manager's";
  Write("service/daemon/cgroup.subtree_control", "cpu memory\n");
  EXPECT_EQ(Find(), (mount_ / "service/daemon").string());
  Write("membership", "4:memory:/service/daemon\n");
  EXPECT_EQ(Find(), std::nullopt);
}

TEST_F(CgroupTest, AGroupCarriesItsLimitOrIsNotUsed) {
  const PcoreCtl::ResourceGroup group{.name = "forks", .memoryLimit = 1 << 20};
  EXPECT_TRUE(PcoreCtl::OpenCgroup(mount_ / "service/daemon", group));
  std::string limit;
  std::ifstream(mount_ / "service/daemon/forks/memory.max") >> limit;
  EXPECT_EQ(limit, "1048576");
  EXPECT_FALSE(PcoreCtl::OpenCgroup(mount_ / "service", group)) << "has no memory.max";
  EXPECT_FALSE(PcoreCtl::OpenCgroup(mount_ / "missing", group));
}

}  // namespace
