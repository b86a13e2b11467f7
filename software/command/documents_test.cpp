#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "software/command/json_value.h"
#include "software/command/names.h"
#include "software/command/remove_files.h"
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

  EXPECT_THROW(WriteToFile(plain + "/below/document", "x"), FileIOError);
  EXPECT_THAT(
      log_.TakeLines(),
      ElementsAre("5 [WriteToFile] Creating directory " + plain + "/below",
                  StartsWith("2 [WriteToFile] Failed to create directory " + plain + "/below: ")));
  EXPECT_THROW(WriteToFile(full, "x"), FileIOError);
  EXPECT_FALSE(fs::exists(fs::symlink_status(full)));
  EXPECT_THROW(WriteToFile(directory, "x"), FileIOError);
  EXPECT_THAT(log_.TakeLines(), ElementsAre("2 [WriteToFile] Failed to write to file: " + full,
                                            "2 [WriteToFile] Unable to open file: " + directory));
}

TEST_F(DocumentsTest, RemoveFilesGoesOnAfterAFailure) {
  const std::string first = directory_ + "/first";
  const std::string last = directory_ + "/last";
  std::ofstream(first) << "x";
  std::ofstream(last) << "x";
  RemoveFiles({first, directory_ + "/missing", last});
  EXPECT_TRUE(fs::is_empty(directory_));
}

TEST_F(DocumentsTest, JsonIsReadInItsTwoForms) {
  const std::string structure = R"({"STRUCTURE":{"depot":{"name":"a"}}})";
  const auto typed = TypedJsonToValue(structure);
  ASSERT_NE(typed->As<Orbi::Data::Structure>(), nullptr);
  EXPECT_EQ(typed->As<Orbi::Data::Structure>()->name, "depot");
  const auto clean = JsonToValue(structure);
  ASSERT_NE(clean->As<Orbi::Data::Structure>(), nullptr);
  EXPECT_NE(clean->As<Orbi::Data::Structure>()->Find("STRUCTURE"), nullptr);
  EXPECT_NE(JsonToValue("null")->As<Orbi::Data::Void>(), nullptr);

  for (const char* text : {"", "{", "{} {}", "not JSON"}) {
    EXPECT_THROW(JsonToValue(text), OrbiJsonSerializationError) << text;
    EXPECT_THROW(TypedJsonToValue(text), OrbiJsonSerializationError) << text;
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
