#include "configstore/store.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <sqlite3.h>

#include <ctime>
#include <map>
#include <optional>
#include <utility>

#include "configstore/status_error.h"
#include "tesselibs/log.h"

namespace RyxConfigStore {
namespace {

constexpr std::int64_t kFormat = 1;  // the database's user_version

const std::string kSelect = "SELECT component, category, key, instance, value FROM entries ";

bool IsDamage(const SQLite::Exception& e) {
  const int reason = e.getErrorCode() & 0xff;  // without the details
  return reason == SQLITE_CORRUPT || reason == SQLITE_NOTADB;
}

/// Does a step of an operation, whose failure has the status `code`. Damage to the database is not
/// the step's failure and passes.
template <typename Step>
decltype(auto) Guarded(CSErrorCode code, std::initializer_list<std::string> arguments,
                       const Step& step) {
  try {
    return step();
  } catch (const SQLite::Exception& e) {
    if (IsDamage(e)) throw;
    const ConfigStoreException failure(code, arguments);
    Log_Level(LogLevel::kCritical, "[ConfigStore]: %s: %s\n", failure.what(), e.what());
    throw failure;
  }
}

std::string UtcNow(const char* format) {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  return {text, std::strftime(text, sizeof text, format, &utc)};
}

/// Makes sure that a database that was just connected to is whole and a store.
void Prepare(SQLite::Database& database) {
  // A transaction that was told to have happened survives the loss of power as well.
  database.exec("PRAGMA synchronous = FULL");
  const std::string verdict = database.execAndGet("PRAGMA quick_check(1)").getString();
  if (verdict != "ok") throw SQLite::Exception(verdict, SQLITE_CORRUPT);
  const std::int64_t format = database.execAndGet("PRAGMA user_version").getInt64();
  if (format > kFormat) throw ConfigStoreException(CSErrorCode::kUnknownFormat);
  if (format == kFormat) return;  // one that can only be read is not written to
  database.exec(
      "CREATE TABLE IF NOT EXISTS entries ("
      "component TEXT NOT NULL, category TEXT NOT NULL, key TEXT NOT NULL,"
      "instance TEXT NOT NULL, value TEXT NOT NULL, changed_at TEXT NOT NULL,"
      "PRIMARY KEY (component, category, key, instance)) WITHOUT ROWID;"
      "PRAGMA user_version = 1");
}

void BindAddress(SQLite::Statement& statement, const KeyAddress& address) {
  statement.bindNoCopy(1, address.component);
  statement.bindNoCopy(2, address.group);
  statement.bindNoCopy(3, address.key);
}

std::vector<Entry> ReadEntries(SQLite::Statement& rows) {
  std::vector<Entry> entries;
  while (rows.executeStep()) {
    const auto text = [&rows](int column) { return rows.getColumn(column).getString(); };
    entries.push_back({{text(0), text(1), text(2)}, text(3), text(4)});
  }
  return entries;
}

}  // namespace

std::shared_ptr<Store> Store::FromPath(const std::string& path) {
  static std::mutex mutex;  // guards the handles
  static std::map<std::string, std::shared_ptr<Store>> handles;
  const std::lock_guard guard(mutex);
  auto& handle = handles[path];
  if (!handle) handle.reset(new Store(path));
  return handle;
}

Store::Store(std::string path) : file_(std::move(path), Prepare) {}

Store::~Store() = default;

SQLite::Database& Store::Open() {
  const auto connect = [this]() -> SQLite::Database& {
    return *file_.Connect(Sqlite::DatabaseFile::Missing::kCreate);
  };
  try {
    return Guarded(CSErrorCode::kOpenFailed, {file_.path()}, connect);
  } catch (const SQLite::Exception& damage) {
    const std::string aside = file_.path() + ".damaged-" + UtcNow("%Y%m%dT%H%M%SZ");
    if (!file_.SetAside(aside)) throw;
    Log_Level(LogLevel::kCritical, "[ConfigStore]: %s is damaged (%s); it is kept as %s\n",
              file_.path().c_str(), damage.what(), aside.c_str());
    return Guarded(CSErrorCode::kOpenFailed, {file_.path()}, connect);
  }
}

template <typename Work>
decltype(auto) Store::Run(const Work& work) {
  const std::lock_guard guard(mutex_);
  try {
    return work(Open());
  } catch (const SQLite::Exception& damage) {
    file_.Disconnect();  // the next operation sets it aside
    const ConfigStoreException failure(CSErrorCode::kDamaged);
    Log_Level(LogLevel::kCritical, "[ConfigStore]: %s: %s\n", failure.what(), damage.what());
    throw failure;
  }
}

std::vector<Entry> Store::Get(const KeyAddress& address) {
  return Run([&](SQLite::Database& database) {
    return Guarded(CSErrorCode::kReadFailed, {}, [&] {
      SQLite::Statement rows(database, kSelect +
                                           "WHERE component = ? AND category = ? AND "
                                           "key = ? ORDER BY instance");
      BindAddress(rows, address);
      return ReadEntries(rows);
    });
  });
}

std::vector<Entry> Store::GetAll() {
  return Run([&](SQLite::Database& database) {
    return Guarded(CSErrorCode::kReadFailed, {}, [&] {
      SQLite::Statement rows(database, kSelect + "ORDER BY component, category, key, instance");
      return ReadEntries(rows);
    });
  });
}

void Store::Change(const std::function<void(Transaction&)>& changes) {
  Run([&](SQLite::Database& database) {
    std::optional<SQLite::Transaction> open;
    // Taken for writing from the start: two that read first and then write would each wait for the
    // other.
    Guarded(CSErrorCode::kBeginFailed, {},
            [&] { open.emplace(database, SQLite::TransactionBehavior::IMMEDIATE); });
    Transaction transaction(database);
    changes(transaction);
    Guarded(CSErrorCode::kCommitFailed, {}, [&] { open->commit(); });
  });
}

void Store::Transaction::Set(const KeyAddress& address, const std::string& instance,
                             const std::string& value) {
  Guarded(CSErrorCode::kWriteFailed, {}, [&] {
    SQLite::Statement row(database_,
                          "INSERT INTO entries VALUES (?, ?, ?, ?, ?, ?) "
                          "ON CONFLICT DO UPDATE SET value = excluded.value, "
                          "changed_at = excluded.changed_at WHERE value != excluded.value");
    BindAddress(row, address);
    row.bindNoCopy(4, instance);
    row.bindNoCopy(5, value);
    row.bind(6, UtcNow("%Y-%m-%dT%H:%M:%SZ"));
    row.exec();
  });
}

void Store::Transaction::Delete(const KeyAddress& address, const std::string& instance) {
  Guarded(CSErrorCode::kRemoveFailed, {}, [&] {
    SQLite::Statement row(database_,
                          "DELETE FROM entries WHERE component = ? AND category = ? AND key = ? "
                          "AND instance = ?");
    BindAddress(row, address);
    row.bindNoCopy(4, instance);
    row.exec();
  });
}

}  // namespace RyxConfigStore
