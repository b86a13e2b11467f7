#include "taskdb/task_manager.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <rapidjson/error/en.h>
#include <sqlite3.h>

#include <cerrno>
#include <map>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "tesselibs/json_document.h"
#include "tesselibs/log.h"

namespace TaskDB {
namespace {

/// One record, parsed from a row.
class RowRecord {
 public:
  explicit RowRecord(const SQLite::Column& column) {
    if (static_cast<std::size_t>(column.getBytes()) > JsonDocument::kMaxDocumentSize)
      throw CorruptError("The record is too large.");
    text_ = column.getString();
    if (const auto result = JsonDocument::ParseInPlace(text_, document_); result.IsError())
      throw CorruptError(rapidjson::GetParseError_En(result.Code()));
  }

  [[nodiscard]] rapidjson::Document& document() { return document_; }

 private:
  std::string text_;
  rapidjson::Document document_;
};

std::string PrintRecord(const Record& record) {
  const auto text = JsonDocument::Print(record, 1024);
  if (text.GetSize() > JsonDocument::kMaxDocumentSize)
    throw std::runtime_error("The record is too large.");
  return {text.GetString(), text.GetSize()};
}

void Store(SQLite::Database& database, const std::string& id, const std::string& record) {
  SQLite::Statement statement(database,
                              "INSERT INTO tasks (id, record) VALUES (?, ?) "
                              "ON CONFLICT (id) DO UPDATE SET record = excluded.record");
  statement.bind(1, id);
  statement.bind(2, record);
  statement.exec();
}

/// Rethrows the database's own error as one of this library's, where there is one for it.
[[noreturn]] void Translate(const SQLite::Exception& e) {
  switch (e.getErrorCode() & 0xff) {
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
      throw CorruptError(e.what());
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      throw BusyError(e.what());
    default:
      throw e;
  }
}

/// A row that cannot be read is told and left out: it costs no other task.
void VisitRows(SQLite::Database& database,
               const std::function<void(const std::string&, rapidjson::Document&)>& visit) {
  SQLite::Statement rows(database, "SELECT id, record FROM tasks ORDER BY rowid");
  while (rows.executeStep()) {
    const std::string id = rows.getColumn(0).getString();
    std::optional<RowRecord> record;
    try {
      record.emplace(rows.getColumn(1));
    } catch (const CorruptError& e) {
      Log_Level(LogLevel::kError, "Record of task %s cannot be read: %s, skipping task\n",
                id.c_str(), e.what());
      continue;
    }
    visit(id, record->document());
  }
}

}  // namespace

std::shared_ptr<TaskManager> TaskManager::FromPath(const std::string& path) {
  static std::mutex mutex;  // guards the handles
  static std::map<std::string, std::weak_ptr<TaskManager>> handles;
  const std::lock_guard guard(mutex);
  auto& known = handles[path];
  auto handle = known.lock();
  if (!handle) {
    handle.reset(new TaskManager(path));
    known = handle;
  }
  return handle;
}

TaskManager::TaskManager(std::string path)
    : file_(std::move(path), [](SQLite::Database& database) {
        database.exec(
            "CREATE TABLE IF NOT EXISTS tasks (id TEXT PRIMARY KEY, record TEXT NOT NULL)");
      }) {}

TaskManager::~TaskManager() = default;

void TaskManager::Run(Missing missing, const Operation& operation) {
  const std::lock_guard guard(mutex_);
  try {
    SQLite::Database* const database = file_.Connect(missing);
    if (database == nullptr) throw MissingError(path() + " not found");
    operation(*database);
  } catch (const SQLite::Exception& e) {
    Translate(e);
  }
}

void TaskManager::RunTransaction(const Operation& operation) {
  Run(Missing::kRefuse, [&](SQLite::Database& database) {
    // Taken for writing from the start: two that read first and then write would each wait for the
    // other.
    SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
    operation(database);
    transaction.commit();
  });
}

void TaskManager::Create() {
  Run(Missing::kCreate, [](SQLite::Database& database) {
    if (database.execAndGet("PRAGMA quick_check(1)").getString() != "ok")
      throw CorruptError("The database is malformed.");
  });
}

void TaskManager::Recreate(const std::string& keptAs) {
  {
    const std::lock_guard guard(mutex_);
    if (!file_.SetAside(keptAs)) throw std::system_error(errno, std::generic_category(), keptAs);
  }
  Create();
}

void TaskManager::Add(const std::string& id, const RecordMaker& make, OnDuplicate onDuplicate) {
  rapidjson::Document::AllocatorType allocator;
  const std::string record = PrintRecord(make(allocator));
  RunTransaction([&](SQLite::Database& database) {
    SQLite::Statement present(database, "SELECT 1 FROM tasks WHERE id = ?");
    present.bind(1, id);
    if (onDuplicate == OnDuplicate::kRefuse && present.executeStep()) RefuseDuplicate(id);
    Store(database, id, record);
  });
}

void TaskManager::Change(const std::string& id, const RecordEdit& edit) {
  RunTransaction([&](SQLite::Database& database) {
    SQLite::Statement row(database, "SELECT record FROM tasks WHERE id = ?");
    row.bind(1, id);
    if (!row.executeStep()) RefuseMissing(id);
    RowRecord record(row.getColumn(0));
    edit(record.document(), record.document().GetAllocator());
    Store(database, id, PrintRecord(record.document()));
  });
}

void TaskManager::ChangeAll(const RecordSweep& sweep) {
  RunTransaction([&](SQLite::Database& database) {
    std::vector<std::pair<std::string, std::string>> changed;
    VisitRows(database, [&](const std::string& id, rapidjson::Document& record) {
      if (sweep(id, record, record.GetAllocator())) changed.emplace_back(id, PrintRecord(record));
    });
    for (const auto& [id, record] : changed) Store(database, id, record);
  });
}

void TaskManager::Visit(const std::string& id, const RecordVisit& visit) {
  Run(Missing::kRefuse, [&](SQLite::Database& database) {
    SQLite::Statement row(database, "SELECT record FROM tasks WHERE id = ?");
    row.bind(1, id);
    if (row.executeStep()) visit(id, RowRecord(row.getColumn(0)).document());
  });
}

void TaskManager::ForEach(const RecordVisit& visit) {
  Run(Missing::kRefuse, [&](SQLite::Database& database) {
    VisitRows(database,
              [&](const std::string& id, rapidjson::Document& record) { visit(id, record); });
  });
}

}  // namespace TaskDB
