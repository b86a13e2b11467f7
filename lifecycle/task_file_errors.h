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

/// The task status file does not parse.
class JsonParseError : public std::exception {
 public:
  explicit JsonParseError(const std::string& reason) : text_("Json Parsing Error: " + reason) {}
  [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

/// Why a file that parses holds no records.
inline constexpr char kNoObject[] = "is no JSON object";

/// The task status file may be JSON, but none that records can be read from: it is larger than any
/// document read, or no object.
class UnusableTaskFileError : public std::exception {
 public:
  /// @param reason  goes on from the file's name
  UnusableTaskFileError(const std::string& path, const std::string& reason)
      : text_("TaskFile(" + path + ") " + reason), reason_(reason) {}
  [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }
  [[nodiscard]] const std::string& reason() const { return reason_; }

 private:
  std::string text_;
  std::string reason_;
};

}  // namespace LifeCycle
