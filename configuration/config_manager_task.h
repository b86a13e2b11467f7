#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "configmanager/task_input.h"
#include "lifecycle/complete_operation.h"
#include "lifecycle/task.h"
#include "lifecycle/task_file.h"
#include "orbi/data/value.h"

namespace LifeCycle {

/// A task that the configuration manager works on: moves the task's record along, turns failures
/// into the errors that clients see, and keeps the outcome until it is recorded. What is done is
/// the subclass's.
///
/// The task owns the task sync file from its creation on; the file goes when the task does.
class ConfigManagerTaskImpl : public Task {
 public:
  ConfigManagerTaskImpl(const ConfigManagerTaskImpl&) = delete;
  ConfigManagerTaskImpl& operator=(const ConfigManagerTaskImpl&) = delete;
  ~ConfigManagerTaskImpl() override;

  void preRun() override;
  /// Never throws: a failure is the task's outcome.
  void run() final;
  void postRun() override;
  [[nodiscard]] bool isAbortRequested() const override { return abortRequested_; }
  void requestAbort() override { abortRequested_ = true; }
  void abort() override;
  [[nodiscard]] std::string label() const override { return operation_ + ":" + taskId_; }

 protected:
  /// The part of a task's percents that a call of the library has.
  struct Range {
    unsigned from;
    unsigned to;
  };
  static constexpr Range kWhole{10, 90};

  /// Makes the task's result of what the library answered.
  using Conversion = std::function<Orbi::Data::Value()>;

  /// @param operation  its name in log lines
  /// @param taskId    of a PENDING record (InitTask)
  ConfigManagerTaskImpl(std::string operation, std::string taskId);

  /// What has to be had before the work begins.
  /// @throws OperationError  the task's error
  virtual void Prepare() {}

  /// Does the work.
  /// @throws OperationError  the task's error
  [[nodiscard]] virtual Conversion Work() = 0;

  /// The error for an exception of the work; logs it.
  [[nodiscard]] virtual Orbi::Data::ErrorValue Translate(const std::exception& failure) const = 0;

  /// What a call of the library gets of this task.
  [[nodiscard]] RyxConfigManager::TaskInput MakeTaskInput(Range range = kWhole);

  /// Records progress, which only grows. That it cannot be recorded is no failure of the task.
  void SetProgress(unsigned percent);

 private:
  void RecordOutcome();
  void RecordFailure(const Orbi::Data::ErrorValue& error);

  std::atomic<bool> abortRequested_ = false;
  std::atomic<bool> started_ = false;  ///< its record is no longer PENDING
  const std::string operation_;
  TaskFile taskFile_;
  const std::string taskId_;
  unsigned progress_ = 0;
  std::optional<Orbi::Data::ErrorValue> error_;
  std::optional<Orbi::Data::Value> result_;
};

}  // namespace LifeCycle
