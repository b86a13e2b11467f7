#include "lifecycle/json_task_store.h"

#include <fcntl.h>
#include <rapidjson/error/en.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "lifecycle/file_content.h"
#include "lifecycle/task_file_errors.h"
#include "software/command/write_to_file.h"
#include "tesselibs/json_document.h"
#include "tesselibs/log.h"
#include "tesselibs/unique_fd.h"

namespace LifeCycle {
namespace {

/// Added to the file's name, and followed by the writer's thread, for its new content: a writer
/// that waited for the lock in vain must not write into the same file as the one that holds it.
constexpr char kNewSuffix[] = ".new-";

/// New tasks leave this much of the largest file free, in bytes, so that those that run can end.
constexpr std::size_t kRoomToEnd = std::size_t{1} << 20;

}  // namespace

JsonTaskStore::Tasks::Tasks(std::string fileText) : text(std::move(fileText)) {
  if (const auto result = JsonDocument::ParseInPlace(text, document); result.IsError())
    throw JsonParseError(rapidjson::GetParseError_En(result.Code()));
  if (!document.IsObject())
    throw JsonParseError(rapidjson::GetParseError_En(rapidjson::kParseErrorValueInvalid));
}

AccessLock JsonTaskStore::Lock() const {
  return AccessLock(path_, retries_, AccessLock::Before::kShortWait);
}

JsonTaskStore::Tasks JsonTaskStore::Read() const { return Tasks(FileContent(path_).Read()); }

void JsonTaskStore::Initialise() {
  const AccessLock lock = Lock();
  RemoveLeftovers();
  try {
    (void)Read();
    return;
  } catch (const TaskFileNotFoundError&) {
    // Told to nobody: the first start of a host.
  } catch (const JsonParseError& e) {
    Log_Level(LogLevel::kError, "Failed to parse task file %s: %s, re-creating the file...\n",
              path_.c_str(), e.what());
  }
  try {
    Replace("{}");
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "Failed to initiate task file %s: %s\n", path_.c_str(),
              e.what());
    throw;
  }
}

void JsonTaskStore::Add(const std::string& id, const TaskDB::RecordMaker& make,
                        TaskDB::OnDuplicate onDuplicate) {
  const AccessLock lock = Lock();
  Tasks tasks = Read();
  auto& allocator = tasks.document.GetAllocator();
  TaskDB::Record* const present = JsonDocument::FindMember(tasks.document, id);
  if (present != nullptr && onDuplicate == TaskDB::OnDuplicate::kRefuse)
    TaskDB::RefuseDuplicate(id);
  if (present != nullptr)
    *present = make(allocator);
  else
    tasks.document.AddMember(TaskDB::Record(id, allocator), make(allocator), allocator);
  Write(tasks, kRoomToEnd);
}

void JsonTaskStore::Change(const std::string& id, const TaskDB::RecordEdit& edit) {
  const AccessLock lock = Lock();
  Tasks tasks = Read();
  TaskDB::Record* const record = JsonDocument::FindMember(tasks.document, id);
  if (record == nullptr) TaskDB::RefuseMissing(id);
  edit(*record, tasks.document.GetAllocator());
  Write(tasks);
}

void JsonTaskStore::ChangeAll(const TaskDB::RecordSweep& sweep) {
  const AccessLock lock = Lock();
  Tasks tasks = Read();
  bool changed = false;
  for (auto& [id, record] : JsonDocument::Members(tasks.document))
    changed |= sweep(std::string(JsonDocument::TextOf(&id)), record, tasks.document.GetAllocator());
  if (changed) Write(tasks);
}

void JsonTaskStore::ForEach(const TaskDB::RecordVisit& visit) const {
  FileContent content(path_);
  std::string text;
  {
    const AccessLock lock = Lock();
    text = std::move(content).Read();
  }
  const Tasks tasks(std::move(text));
  std::string id;
  for (const auto& [name, record] : JsonDocument::Members(tasks.document)) {
    id = JsonDocument::TextOf(&name);
    visit(id, record);
  }
}

void JsonTaskStore::Write(const Tasks& tasks, std::size_t roomLeft) const {
  const auto text = JsonDocument::Print(tasks.document, tasks.text.size() + 1024);
  if (text.GetSize() + roomLeft > largest_) throw std::runtime_error("Task file is full.");
  Replace({text.GetString(), text.GetSize()});
}

/// Puts a file with the new content in the place of the old one.
void JsonTaskStore::Replace(std::string_view text) const {
  const std::string fresh = path_ + kNewSuffix + std::to_string(gettid());
  WriteToFile(fresh, text);
  try {
    // Otherwise a power failure could leave the new name with none of the content.
    const UniqueFd file(open(fresh.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file || fsync(file.Get()) != 0 || rename(fresh.c_str(), path_.c_str()) != 0)
      throw std::system_error(errno, std::generic_category(), path_);
  } catch (const std::system_error& e) {
    std::remove(fresh.c_str());
    throw;
  }
}

void JsonTaskStore::RemoveLeftovers() const {
  const boost::filesystem::path path(path_);
  const std::string prefix = path.filename().string() + kNewSuffix;
  boost::system::error_code error;
  for (boost::filesystem::directory_iterator entry(path.parent_path(), error), end;
       !error && entry != end; entry.increment(error)) {
    if (entry->path().filename().string().starts_with(prefix)) std::remove(entry->path().c_str());
  }
}

}  // namespace LifeCycle
