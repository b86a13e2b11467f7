#include "lifecycle/json_task_store.h"

#include <fcntl.h>
#include <rapidjson/error/en.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "lifecycle/file_content.h"
#include "lifecycle/set_aside.h"
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

/// New tasks leave this much of the largest file free, in bytes: those that run then mostly end in
/// the file that they began in.
constexpr std::size_t kRoomToEnd = std::size_t{1} << 20;

std::string Print(const TaskDB::Record& record) {
  const auto text = JsonDocument::Print(record, 1024);
  return {text.GetString(), text.GetSize()};
}

[[noreturn]] void Fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace

AccessLock JsonTaskStore::Lock() const {
  return AccessLock(path_, retries_, AccessLock::Before::kShortWait);
}

/// For a change, which has to find a file that it can be made in.
StatusText JsonTaskStore::ReadOrSetAside() const {
  try {
    return StatusText(FileContent(path_, largest_).Read(), path_);
  } catch (const UnusableTaskFileError& e) {
    SetAsideFor(RecordsOfLargeFile(), e.reason());
  }
  return StatusText(FileContent(path_, largest_).Read(), path_);
}

void JsonTaskStore::Initialise() {
  const AccessLock lock = Lock();
  RemoveLeftovers();
  try {
    ReadOrMakeAnew();
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "Failed to initiate task file %s: %s\n", path_.c_str(),
              e.what());
    throw;
  }
}

void JsonTaskStore::ReadOrMakeAnew() const {
  try {
    (void)ReadOrSetAside();
  } catch (const TaskFileNotFoundError&) {
    Replace("{}");  // told to nobody: the first start of a host
  } catch (const JsonParseError& e) {
    Log_Level(LogLevel::kError, "Failed to parse task file %s: %s, re-creating the file...\n",
              path_.c_str(), e.what());
    SetAsideFor("{}", "does not parse");  // people may still make something of it
  }
}

void JsonTaskStore::Add(const std::string& id, const TaskDB::RecordMaker& make,
                        TaskDB::OnDuplicate onDuplicate) {
  const AccessLock lock = Lock();
  StatusText tasks = ReadOrSetAside();
  const auto present = tasks.Find(id);
  if (present && onDuplicate == TaskDB::OnDuplicate::kRefuse) TaskDB::RefuseDuplicate(id);
  TaskDB::Allocator allocator;
  const std::string record = Print(make(allocator));
  if (present)
    tasks.Replace({{{*present, record}}});
  else
    tasks.Append(id, record);
  Write(tasks, present.value_or(tasks.count() - 1), kRoomToEnd);
}

void JsonTaskStore::Change(const std::string& id, const TaskDB::RecordEdit& edit) {
  const AccessLock lock = Lock();
  StatusText tasks = ReadOrSetAside();
  const auto index = tasks.Find(id);
  if (!index) TaskDB::RefuseMissing(id);
  rapidjson::Document record;
  std::string text;
  tasks[*index].Decode(record, text);
  edit(record, record.GetAllocator());
  tasks.Replace({{{*index, Print(record)}}});
  Write(tasks, index);
}

void JsonTaskStore::ChangeAll(const TaskDB::RecordSweep& sweep) {
  const AccessLock lock = Lock();
  StatusText tasks = ReadOrSetAside();
  std::vector<StatusText::Replacement> changed;
  rapidjson::Document record;
  std::string text;
  for (std::size_t i = 0; i < tasks.count(); ++i) {
    tasks[i].Decode(record, text);
    if (sweep(tasks[i].Id(), record, record.GetAllocator())) changed.push_back({i, Print(record)});
  }
  if (changed.empty()) return;
  tasks.Replace(changed);
  Write(tasks, changed.back().index);
}

void JsonTaskStore::ForEach(const TaskDB::RecordVisit& visit) const {
  FileContent content(path_, largest_);
  std::string text;
  {
    const AccessLock lock = Lock();
    text = std::move(content).Read();
  }
  // All at once, since all are looked at: one after the other takes nearly twice as long.
  rapidjson::Document tasks;
  if (const auto result = JsonDocument::ParseInPlace(text, tasks); result.IsError())
    throw JsonParseError(rapidjson::GetParseError_En(result.Code()));
  if (!tasks.IsObject()) throw UnusableTaskFileError(path_, kNoObject);
  for (const auto& [name, record] : JsonDocument::Members(tasks))
    visit(std::string(JsonDocument::TextOf(&name)), record);
}

/// @param changed  the record that must be in the file whatever else has to be left out of it
void JsonTaskStore::Write(const StatusText& tasks, std::optional<std::size_t> changed,
                          std::size_t roomLeft) const {
  if (tasks.text().size() + roomLeft <= largest_) return Replace(tasks.text());
  const auto bytes = [&](std::size_t begin, std::size_t end) {
    return std::string_view(tasks.text()).substr(begin, end - begin);
  };
  const std::string text = TextToGoOn(tasks.places(), bytes, changed, largest_);
  if (text.size() + roomLeft > largest_) throw std::runtime_error("Task file is full.");
  SetAsideFor(text, "has no room left");
}

/// @return what goes on of the file at the path, which is too large to be read, or no object
std::string JsonTaskStore::RecordsOfLargeFile() const {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path_.c_str(), "rbe"),
                                                             std::fclose);
  struct stat status {};
  if (!file || fstat(fileno(file.get()), &status) != 0) Fail(path_);
  auto scan = JsonDocument::ScanObject(file.get(), static_cast<std::size_t>(status.st_size));
  if (scan.result.IsError() || !scan.isObject) scan.members.clear();
  std::string buffer;
  const auto bytes = [&](std::size_t begin, std::size_t end) {
    buffer.resize(end - begin);
    if (pread(fileno(file.get()), buffer.data(), buffer.size(), static_cast<off_t>(begin)) !=
        static_cast<ssize_t>(buffer.size()))
      Fail(path_);
    return std::string_view(buffer);
  };
  return TextToGoOn(scan.members, bytes, std::nullopt, largest_);
}

/// Puts a file with the new content in the place of the old one.
void JsonTaskStore::Replace(std::string_view text) const { TakePlace(WriteSuccessor(text)); }

/// The same, but the old one stays under another name. There is one at the path at any moment: a
/// process that is killed in between leaves the old one there, or the new one.
void JsonTaskStore::SetAsideFor(std::string_view text, const std::string& reason) const {
  const std::string successor = WriteSuccessor(text);
  std::string aside;
  try {
    aside = SetAside(path_);
  } catch (const std::system_error&) {
    std::remove(successor.c_str());
    throw;
  }
  TakePlace(successor);
  Log_Level(LogLevel::kCritical, "Task file %s %s, set aside as %s\n", path_.c_str(),
            reason.c_str(), aside.c_str());
}

std::string JsonTaskStore::WriteSuccessor(std::string_view text) const {
  std::string successor = path_ + kNewSuffix + std::to_string(gettid());
  struct stat old {};
  const bool keepsMode = stat(path_.c_str(), &old) == 0;
  WriteToFile(successor, text);
  // Synced, because otherwise a power failure could leave the new name with none of the content.
  const UniqueFd file(open(successor.c_str(), O_RDONLY | O_CLOEXEC));
  if (file && (!keepsMode || fchmod(file.Get(), old.st_mode & 07777) == 0) &&
      fsync(file.Get()) == 0)
    return successor;
  const int error = errno;
  std::remove(successor.c_str());
  throw std::system_error(error, std::generic_category(), path_);
}

void JsonTaskStore::TakePlace(const std::string& successor) const {
  if (rename(successor.c_str(), path_.c_str()) == 0) return;
  const int error = errno;
  std::remove(successor.c_str());
  throw std::system_error(error, std::generic_category(), path_);
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
