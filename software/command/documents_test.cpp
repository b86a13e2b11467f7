#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "software/command/json_value.h"
#include "software/command/names.h"
#include "software/command/write_to_file.h"
#include "tesselibs/testing/captured_log.h"

namespace LifeCycle {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::StartsWith;

class DocumentsTest : public testing::Test {
 protected:
  void SetUp() override { fs::create_directory(directory_); }
  void TearDown() override { fs::remove_all(directory_); }

  const std::string directory_ = testing::TempDir() + "documents_test." + std::to_string(getpid());
  CapturedLog log_;
};

TEST_F(DocumentsTest, WriteToFileReplacesContentAndMakesDirectories) {
  const std::string path = directory_ + "/a/b/document";
  for (const std::string& content : {std::string("first and longer"), std::string("a\0\n", 3)}) {
    WriteToFile(path, content);
    std::ifstream file(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), content);
  }
  EXPECT_THAT(log_.TakeLines(),
              ElementsAre("5 [WriteToFile] Creating directory " + directory_ + "/a/b"));
}

TEST_F(DocumentsTest, AFailedWriteLeavesNothingBehind) {
  const std::string plain = directory_ + "/plain";
  const std::string full = directory_ + "/full";
  const std::string directory = directory_ + "/directory";
  std::ofstream(plain) << "x";
  fs::create_symlink("/dev/full", full);
  fs::create_directories(directory + "/inner");

  for (const std::string& path : {plain + "/below/document", full, directory}) {
    EXPECT_THROW(WriteToFile(path, "x"), FileIOError) << path;
    EXPECT_THAT(log_.TakeLines().back(), StartsWith("2 [WriteToFile] ")) << path;
  }
  EXPECT_FALSE(fs::exists(fs::symlink_status(full)));
}

TEST_F(DocumentsTest, TextThatIsNoJsonIsAnErrorInBothForms) {
  for (const char* text : {"", "{", "{} {}", "not JSON"}) {
    EXPECT_THROW((void)JsonToValue(text), OrbiJsonSerializationError) << text;
    EXPECT_THROW((void)TypedJsonToValue(text), OrbiJsonSerializationError) << text;
    EXPECT_THAT(log_.TakeLines(), testing::Each(StartsWith("2 Deserialize from JSON failed: ")));
  }
}

TEST(NamesTest, OnlyNamesThatMeanNothingOnACommandLineAreValid) {
  for (const char* name : {"depot1", "a b", "a-b_c.d/e", "\xc3\xa4", "a|b", " x"}) {
    EXPECT_TRUE(IsValidName(name)) << name;
  }
  for (const char* name : {"", " ", " \t\n\v\f\r", "a;b", "\\", "a*", "+a", "100%", "a$", "~", "a!",
                           "\"a", "it's", "C:"}) {
    EXPECT_FALSE(IsValidName(name)) << name;
  }
}

}  // namespace
}  // namespace LifeCycle
