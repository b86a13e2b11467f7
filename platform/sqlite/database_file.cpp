#include "sqlite/database_file.h"

#include <SQLiteCpp/Database.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

namespace Sqlite {
namespace {

constexpr int kBusyTimeoutMilliseconds = 5000;

/// What SQLite keeps beside a database. The database itself always goes first: SQLite never replays
/// a log that has none.
constexpr const char* kCompanions[] = {"-wal", "-shm"};

}  // namespace

DatabaseFile::DatabaseFile(std::string path, Prepare prepare)
    : path_(std::move(path)), prepare_(std::move(prepare)) {}

DatabaseFile::~DatabaseFile() = default;

std::optional<DatabaseFile::Identity> DatabaseFile::CurrentFile() const {
  struct stat status {};
  if (stat(path_.c_str(), &status) != 0) return std::nullopt;
  return Identity{status.st_dev, status.st_ino};
}

SQLite::Database* DatabaseFile::Connect(Missing missing) {
  const auto file = CurrentFile();
  if (!file && missing == Missing::kRefuse) return nullptr;
  if (database_ && file == connected_) return database_.get();
  Disconnect();
  int flags = SQLite::OPEN_READWRITE;
  if (missing == Missing::kCreate) {
    flags |= SQLite::OPEN_CREATE;
    std::error_code ignored;  // a folder that cannot be made shows in the next step
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ignored);
  }
  auto database = std::make_unique<SQLite::Database>(path_, flags, kBusyTimeoutMilliseconds);
  // The mode stays with the file. Setting it fails at once, without the busy timeout, while another
  // process is at it; whatever else is wrong shows in the next statement.
  database->tryExec("PRAGMA journal_mode = WAL");
  prepare_(*database);
  database_ = std::move(database);
  connected_ = CurrentFile();
  return database_.get();
}

void DatabaseFile::Disconnect() {
  database_.reset();
  connected_.reset();
}

bool DatabaseFile::SetAside(const std::string& target) {
  Disconnect();
  if (std::rename(path_.c_str(), target.c_str()) != 0) return false;
  for (const char* suffix : kCompanions)
    std::rename((path_ + suffix).c_str(), (target + suffix).c_str());
  return true;
}

}  // namespace Sqlite
