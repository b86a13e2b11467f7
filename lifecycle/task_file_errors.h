#pragma once

#include <exception>
#include <string>
#include <utility>

namespace LifeCycle {

/// There is no task status file.
class TaskFileNotFoundError : public std::exception {
 public:
  explicit TaskFileNotFoundError(std::string text) : text_(std::move(text)) {}
  [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

/// The task status file is not the JSON object that it should be.
class JsonParseError : public std::exception {
 public:
  explicit JsonParseError(std::string text) : text_(std::move(text)) {}
  [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

}  // namespace LifeCycle
