#include <SQLiteCpp/Database.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "configstore/document.h"
#include "configstore/status_error.h"
#include "configstore/store.h"

namespace RyxConfigStore {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

const KeyAddress kServers{"time", "ntp", "servers"};
const KeyAddress kPeers{"time", "ntp", "peers"};

template <typename Action>
std::int32_t CodeOf(const Action& action) {
  try {
    action();
  } catch (const ConfigStoreException& e) {
    return e.code();
  }
  return 0;
}

/// The connection to a database that was made last, as SQLite shows it to its extensions.
sqlite3* lastConnection = nullptr;

int NoteConnection(sqlite3* connection, const char**, const sqlite3_api_routines*) {
  lastConnection = connection;
  return SQLITE_OK;
}

class StoreTest : public testing::Test {
 protected:
  StoreTest() { fs::remove_all(folder_); }
  ~StoreTest() override { fs::remove_all(folder_); }

  void Set(const KeyAddress& address, const std::string& instance, const std::string& value) {
    store().Change([&](auto& change) { change.Set(address, instance, value); });
  }
  [[nodiscard]] Store& store() const { return *Store::FromPath(path_); }

  const fs::path folder_ = fs::temp_directory_path() / ("store-" + std::to_string(getpid()));
  const std::string path_ = folder_ / "below" / "store.db";
};

TEST_F(StoreTest, KeepsValuesByKeyAndInstance) {
  Set(kPeers, "b", "{\"n\":2}");
  Set(kPeers, "a", "{\"n\":1}");
  EXPECT_THAT(store().Get(kPeers),
              ElementsAre(Field(&Entry::instance, "a"), Field(&Entry::value, "{\"n\":2}")));
  EXPECT_THAT(store().Get(kServers), IsEmpty());
  store().Change([](auto& change) {
    change.Delete(kPeers, "a");
    change.Delete(kPeers, "not there");
    change.Set(kPeers, "b", "{\"n\":3}");
  });
  EXPECT_THAT(store().GetAll(), ElementsAre(Field(&Entry::value, "{\"n\":3}")));
}

TEST_F(StoreTest, ATransactionThatFailsHasChangedNothing) {
  Set(kServers, "", "{\"n\":1}");
  const auto failing = [](Store::Transaction& change) {
    change.Set(kServers, "", "{\"n\":2}");
    throw std::runtime_error("second thoughts");
  };
  EXPECT_THROW(store().Change(failing), std::runtime_error);
  EXPECT_THAT(store().Get(kServers), ElementsAre(Field(&Entry::value, "{\"n\":1}")));
}

TEST_F(StoreTest, ADamagedStoreIsSetAsideAndAnotherBegun) {
  const auto damageHeader = [this] { std::ofstream(path_) << "This is not a database."; };
  const auto damagePage = [this] {
    std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4096 + 20);
    file << std::string(3000, '\x5a');
  };
  for (const std::function<void()>& damage : {std::function<void()>(damageHeader), {damagePage}}) {
    fs::remove_all(folder_);
    store().Change([](auto& change) {
      for (int i = 0; i < 200; ++i)
        change.Set(kPeers, std::to_string(i), "{\"text\":\"" + std::string(100, 'x') + "\"}");
    });
    SQLite::Database(path_, SQLite::OPEN_READWRITE).exec("PRAGMA wal_checkpoint(TRUNCATE)");
    const fs::path kept = folder_ / "kept";
    fs::rename(path_, kept);  // another file takes its place, as after a restart
    fs::copy_file(kept, path_);
    fs::remove(kept);
    damage();
    EXPECT_THAT(store().GetAll(), IsEmpty());
    Set(kServers, "", "{}");
    EXPECT_THAT(store().GetAll(), SizeIs(1));
    int setAside = 0;
    for (const auto& file : fs::directory_iterator(fs::path(path_).parent_path()))
      setAside += file.path().filename().string().starts_with("store.db.damaged-2") ? 1 : 0;
    EXPECT_GE(setAside, 1);
  }
}

TEST_F(StoreTest, TellsWhichStepFailed) {
  Set(kServers, "", "{}");
  {
    SQLite::Database other(path_, SQLite::OPEN_READWRITE);
    other.exec("PRAGMA user_version = 2");
    fs::rename(path_, path_ + "-newer");
    fs::copy_file(path_ + "-newer", path_);
  }
  EXPECT_EQ(CodeOf([this] { (void)store().GetAll(); }), 1018);
  fs::remove_all(folder_);
  std::ofstream(folder_) << "a file where the folder should be";
  EXPECT_EQ(CodeOf([this] { Set(kServers, "", "{}"); }), 1001);
  fs::remove(folder_);
  const auto extension = reinterpret_cast<void (*)()>(NoteConnection);
  ASSERT_EQ(sqlite3_auto_extension(extension), SQLITE_OK);
  Set(kServers, "", "{}");
  sqlite3_busy_timeout(lastConnection, 1);  // in place of the five seconds that a store waits
  sqlite3_cancel_auto_extension(extension);
  SQLite::Database other(path_, SQLite::OPEN_READWRITE);
  other.exec("BEGIN IMMEDIATE");
  EXPECT_EQ(CodeOf([this] { Set(kServers, "", "{\"n\":1}"); }), 1011);
  EXPECT_THAT(store().Get(kServers), ElementsAre(Field(&Entry::value, "{}")));
}

TEST(DocumentTest, AreJsonOfBoundedDepth) {
  EXPECT_EQ(ConfigStoreDocument::CreateDocument(" {\"a\": [1, {}]} ").ToText(), "{\"a\":[1,{}]}");
  for (const std::string& text :
       {std::string(), std::string("{"), std::string("{} x"), std::string("{}\0", 3),
        std::string(500, '['), std::string("[\"\\udcff\"]"), std::string("{\"\xff\": 1}"),
        "{\"a\":" + std::string(100, '[') + std::string(100, ']') + "}"})
    EXPECT_EQ(CodeOf([&] { ConfigStoreDocument::CreateDocument(text); }), 1080) << text;
}

TEST(StatusErrorTest, FillsInItsText) {
  EXPECT_STREQ(StatusError(CSErrorCodes, 1083, {"a%s", "b"}).what(), "Validation Error: 'a%s' b");
  EXPECT_STREQ(StatusError(CSErrorCodes, 1103, {"7"}).what(),
               "Failed to wait for child process: 7, errno: %s");
}

}  // namespace
}  // namespace RyxConfigStore
