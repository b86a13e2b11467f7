#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>

namespace LifeCycle {

/// The content of the task status file, read in two steps, so that the file's lock is held for no
/// longer than it takes to copy: memory for it is had and touched at construction.
///
/// For one thread.
class FileContent {
 public:
  /// @param path  outlives this object
  /// @param largest  what is read at most, in bytes
  FileContent(const std::string& path, std::size_t largest);

  /// Reads the file as it is now.
  /// @throws TaskFileNotFoundError  there is none
  /// @throws UnusableTaskFileError  it is larger than what is read at most
  /// @throws std::runtime_error  it is no regular file, or cannot be read
  [[nodiscard]] std::string Read() &&;

 private:
  void MakeRoom(const struct stat& status);

  const std::string& path_;
  const std::size_t largest_;
  std::string text_;
};

}  // namespace LifeCycle
