#include "lifecycle/json_task_store.h"

#include <fcntl.h>
#include <rapidjson/error/en.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "lifecycle/task_file_errors.h"
#include "software/command/write_to_file.h"
#include "tesselibs/json_document.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

/// Added to the file's name, and followed by the writer's thread, for its new content: a writer
/// that waited for the lock in vain must not write into the same file as the one that holds it.
constexpr char kNewSuffix[] = ".new-";

/// New tasks leave this much of the largest file free, in bytes, so that those that run can end.
constexpr std::size_t kRoomToEnd = std::size_t{1} << 20;

/// An open file descriptor.
class File {
 public:
  File(const std::string& path, int flags) : descriptor_(open(path.c_str(), flags | O_CLOEXEC)) {
    if (descriptor_ == -1) throw std::system_error(errno, std::generic_category(), path);
  }
  ~File() { close(descriptor_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  [[nodiscard]] int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

std::string ReadWhole(const std::string& path) {
  errno = 0;
  if (access(path.c_str(), F_OK) != 0) throw TaskFileNotFoundError(path, errno);
  // A FIFO in its place would otherwise hold up whoever opens it, and all requests with them.
  const File file(path, O_RDONLY | O_NONBLOCK);
  struct stat status {};
  if (fstat(file.descriptor(), &status) != 0)
    throw std::system_error(errno, std::generic_category(), path);
  if (!S_ISREG(status.st_mode)) throw std::runtime_error(path + " is not a regular file");
  if (static_cast<std::size_t>(status.st_size) > JsonDocument::kMaxDocumentSize)
    throw JsonParseError("The file is too large.");
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t length = 0;
  while (length < text.size()) {
    const ssize_t n = read(file.descriptor(), text.data() + length, text.size() - length);
    if (n == -1 && errno == EINTR) continue;
    if (n == -1) throw std::system_error(errno, std::generic_category(), path);
    if (n == 0) break;
    length += static_cast<std::size_t>(n);
  }
  text.resize(length);
  return text;
}

std::mutex& ProcessMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

JsonTaskStore::Tasks::Tasks(const std::string& path) : text(ReadWhole(path)) {
  if (const auto result = JsonDocument::ParseInPlace(text, document); result.IsError())
    throw JsonParseError(rapidjson::GetParseError_En(result.Code()));
  if (!document.IsObject())
    throw JsonParseError(rapidjson::GetParseError_En(rapidjson::kParseErrorValueInvalid));
}

JsonTaskStore::JsonTaskStore(std::string path, int retries)
    : path_(std::move(path)), turn_(ProcessMutex()), lock_(path_, retries) {}

void JsonTaskStore::Initialise() {
  RemoveLeftovers();
  try {
    const Tasks tasks(path_);
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
  Tasks tasks(path_);
  auto& allocator = tasks.document.GetAllocator();
  TaskDB::Record* const present = JsonDocument::FindMember(tasks.document, id);
  if (present != nullptr && onDuplicate == TaskDB::OnDuplicate::kRefuse)
    TaskDB::RefuseDuplicate(id);
  if (present != nullptr)
    *present = make(allocator);
  else
    tasks.document.AddMember(TaskDB::Record(id, allocator), make(allocator), allocator);
  Write(tasks, JsonDocument::kMaxDocumentSize - kRoomToEnd);
}

void JsonTaskStore::Change(const std::string& id, const TaskDB::RecordEdit& edit) {
  Tasks tasks(path_);
  TaskDB::Record* const record = JsonDocument::FindMember(tasks.document, id);
  if (record == nullptr) TaskDB::RefuseMissing(id);
  edit(*record, tasks.document.GetAllocator());
  Write(tasks);
}

void JsonTaskStore::ChangeAll(const TaskDB::RecordSweep& sweep) {
  Tasks tasks(path_);
  bool changed = false;
  for (auto& [id, record] : JsonDocument::Members(tasks.document))
    changed |= sweep(std::string(JsonDocument::TextOf(&id)), record, tasks.document.GetAllocator());
  if (changed) Write(tasks);
}

void JsonTaskStore::ForEach(const TaskDB::RecordVisit& visit) {
  const Tasks tasks(path_);
  std::string id;
  for (const auto& [name, record] : JsonDocument::Members(tasks.document)) {
    id = JsonDocument::TextOf(&name);
    visit(id, record);
  }
}

void JsonTaskStore::Write(const Tasks& tasks, std::size_t limit) {
  const auto text = JsonDocument::Print(tasks.document, tasks.text.size() + 1024);
  if (text.GetSize() > limit) throw std::runtime_error("Task file is full.");
  Replace({text.GetString(), text.GetSize()});
}

/// Puts a file with the new content in the place of the old one.
void JsonTaskStore::Replace(std::string_view text) {
  const std::string fresh = path_ + kNewSuffix + std::to_string(gettid());
  WriteToFile(fresh, text);
  try {
    // Otherwise a power failure could leave the new name with none of the content.
    if (fsync(File(fresh, O_RDONLY).descriptor()) != 0 || rename(fresh.c_str(), path_.c_str()) != 0)
      throw std::system_error(errno, std::generic_category(), path_);
  } catch (const std::system_error& e) {
    std::remove(fresh.c_str());
    throw;
  }
}

void JsonTaskStore::RemoveLeftovers() {
  const boost::filesystem::path path(path_);
  const std::string prefix = path.filename().string() + kNewSuffix;
  boost::system::error_code error;
  for (boost::filesystem::directory_iterator entry(path.parent_path(), error), end;
       !error && entry != end; entry.increment(error)) {
    if (entry->path().filename().string().starts_with(prefix)) std::remove(entry->path().c_str());
  }
}

}  // namespace LifeCycle
