#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tesselibs/log.h"

/// For tests: takes what the process logs for as long as it lives. One at a time.
class CapturedLog {
 public:
  CapturedLog() {
    std::unique_ptr<LogOutput> output = std::make_unique<Output>(lines_);
    output->SetLevel(LogLevel::kDebug);
    EXPECT_TRUE(Log_AddOutput(output));
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;
  ~CapturedLog() { Log_RemoveOutput(); }

  /// What was logged since the last call, each line as "LEVEL TEXT".
  [[nodiscard]] std::vector<std::string> TakeLines() {
    EXPECT_TRUE(Log_Flush());
    const std::lock_guard lock(lines_->mutex);
    return std::exchange(lines_->texts, {});
  }

 private:
  struct Lines {
    std::mutex mutex;
    std::vector<std::string> texts;
  };

  class Output : public LogOutput {
   public:
    explicit Output(std::shared_ptr<Lines> lines) : lines_(std::move(lines)) {}
    Progress Write(std::span<const LogLine> lines) override {
      const std::lock_guard lock(lines_->mutex);
      for (const LogLine& line : lines) {
        lines_->texts.push_back(std::to_string(static_cast<int>(line.level)) + " " +
                                std::string(line.text));
      }
      return {.written = lines.size()};
    }

   private:
    const std::shared_ptr<Lines> lines_;
  };

  const std::shared_ptr<Lines> lines_ = std::make_shared<Lines>();
};
