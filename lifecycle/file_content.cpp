#include "lifecycle/file_content.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "lifecycle/task_file_errors.h"
#include "tesselibs/unique_fd.h"

namespace LifeCycle {
namespace {

/// What the file may grow by between the two steps.
constexpr std::size_t kGrowth = 4096;

std::size_t SizeOf(const struct stat& status) { return static_cast<std::size_t>(status.st_size); }

[[noreturn]] void Fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), path);
}

/// @return how much was read: all there is, or as much as there is room for
std::size_t ReadInto(std::string& text, int descriptor, const std::string& path) {
  std::size_t length = 0;
  while (length < text.size()) {
    const ssize_t n = read(descriptor, text.data() + length, text.size() - length);
    if (n == -1 && errno == EINTR) continue;
    if (n == -1) Fail(path);
    if (n == 0) break;
    length += static_cast<std::size_t>(n);
  }
  return length;
}

}  // namespace

FileContent::FileContent(const std::string& path, std::size_t largest)
    : path_(path), largest_(largest) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) MakeRoom(status);
}

std::string FileContent::Read() && {
  errno = 0;
  if (access(path_.c_str(), F_OK) != 0) throw TaskFileNotFoundError(path_, errno);
  // A FIFO in its place would otherwise hold up whoever opens it.
  const UniqueFd file(open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!file || fstat(file.Get(), &status) != 0) Fail(path_);
  if (!S_ISREG(status.st_mode)) throw std::runtime_error(path_ + " is not a regular file");
  if (SizeOf(status) > largest_) throw UnusableTaskFileError(path_, "is larger than can be read");
  if (text_.size() < SizeOf(status)) MakeRoom(status);
  text_.resize(ReadInto(text_, file.Get(), path_));
  return std::move(text_);
}

void FileContent::MakeRoom(const struct stat& status) {
  text_.resize(std::min(SizeOf(status), largest_) + kGrowth);
}

}  // namespace LifeCycle
