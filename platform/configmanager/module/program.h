#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>

#include "configmanager/task_input.h"

namespace RyxConfigManager {

/// The most that a program may write to its standard output, in bytes.
inline constexpr std::size_t kMaxProgramOutput = std::size_t{16} << 20;

/// A program did not do what it was started for.
class ProgramFailure : public std::runtime_error {
 public:
  enum class Kind {
    kSaidSo,      ///< it ended with an exit status other than 0
    kUnexpected,  ///< it could not be started, crashed, hung or wrote without end
  };
  explicit ProgramFailure(Kind kind, const std::string& what, std::string lastWords = {})
      : std::runtime_error(what), kind_(kind), lastWords_(std::move(lastWords)) {}

  [[nodiscard]] Kind kind() const { return kind_; }
  /// The last line that it wrote to its standard error, of one that said that it failed.
  [[nodiscard]] const std::string& lastWords() const { return lastWords_; }

 private:
  Kind kind_;
  std::string lastWords_;
};

/// Runs a program to its end; see RunPlugin for how it is ended otherwise. Callable from any
/// thread: the program is known to the call only, which ends it when its task is to end.
/// @param input  what it reads from its standard input
/// @param task   may be nullptr
/// @return what it wrote to its standard output
/// @throws ProgramFailure
/// @throws Aborted  the task is to end
[[nodiscard]] std::string RunProgram(const std::filesystem::path& program, const std::string& input,
                                     std::chrono::milliseconds timeLimit, const TaskInput* task);

}  // namespace RyxConfigManager
