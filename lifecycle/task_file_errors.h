#pragma once

#include <exception>
#include <string>

namespace LifeCycle {

/// There is no task status file.
class TaskFileNotFoundError : public std::exception {
 public:
  /// @param errorNumber  the system's, or 0 when it gave none
  TaskFileNotFoundError(const std::string& path, int errorNumber);
  [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

/// The task status file is not the JSON object that it should be.
class JsonParseError : public std::exception {
 public:
  explicit JsonParseError(const std::string& reason) : text_("Json Parsing Error: " + reason) {}
  [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

}  // namespace LifeCycle
