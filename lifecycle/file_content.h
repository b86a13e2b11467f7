#pragma once

#include <sys/stat.h>

#include <string>

namespace LifeCycle {

/// The content of the task status file, read in two steps, so that the file's lock is held for no
/// longer than it takes to copy: memory for it is had and touched at construction.
///
/// For one thread.
class FileContent {
 public:
  /// @param path  outlives this object
  explicit FileContent(const std::string& path);

  /// Reads the file as it is now.
  /// @throws TaskFileNotFoundError  there is none
  /// @throws JsonParseError  it is larger than any document read
  /// @throws std::runtime_error  it is no regular file, or cannot be read
  [[nodiscard]] std::string Read() &&;

 private:
  void MakeRoom(const struct stat& status);

  const std::string& path_;
  std::string text_;
};

}  // namespace LifeCycle
