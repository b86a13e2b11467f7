#include "taskdb/task_manager.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Transaction.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "tesselibs/json_document.h"

namespace TaskDB {
namespace {

class TaskManagerTest : public testing::Test {
 protected:
  TaskManagerTest() : folder_(std::filesystem::temp_directory_path() / MakeName()) {
    std::filesystem::create_directory(folder_);
  }
  ~TaskManagerTest() override { std::filesystem::remove_all(folder_); }

  static std::string MakeName() { return "task-manager-" + std::to_string(getpid()); }

  const std::filesystem::path folder_;
  const std::string path_ = folder_ / "tasks.db";
};

TEST_F(TaskManagerTest, HandlesOfOnePathAreOneAndOpenNothing) {
  const auto manager = TaskManager::FromPath(path_);
  EXPECT_EQ(TaskManager::FromPath(path_), manager);
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_THROW(manager->ForEach([](const auto&, const auto&) {}), MissingError);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(TaskManagerTest, KeepsApartWritersOfSeveralConnections) {
  TaskManager::FromPath(path_)->Create();
  const auto manager = TaskManager::FromPath(path_);
  manager->Add("id", EmptyRecord(), OnDuplicate::kRefuse);
  constexpr int kRounds = 20;
  const auto count = [&](Record& record, Allocator& allocator) {
    Record* n = JsonDocument::FindMember(record, "n");
    if (n == nullptr)
      record.AddMember("n", 1, allocator);
    else
      n->SetInt(n->GetInt() + 1);
  };
  // Another program, by the file's agreed form alone.
  std::thread other([&] {
    SQLite::Database database(path_, SQLite::OPEN_READWRITE, 5000);
    for (int i = 0; i < kRounds; ++i) {
      SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
      database.exec(
          "UPDATE tasks SET record = json_set(record, '$.n', "
          "coalesce(json_extract(record, '$.n'), 0) + 1) WHERE id = 'id'");
      transaction.commit();
    }
  });
  for (int i = 0; i < kRounds; ++i) manager->Change("id", count);
  other.join();
  manager->ForEach([&](const std::string&, const Record& record) {
    EXPECT_EQ(JsonDocument::FindMember(record, "n")->GetInt(), 2 * kRounds);
  });
}

}  // namespace
}  // namespace TaskDB
