#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bindings/com/tessel/ryx/kestrel_daemon/configuration.h"
#include "configmanager/results.h"
#include "configuration/config_manager_task.h"
#include "orbi/data/message.h"

/// The tasks on whole configuration documents.
namespace LifeCycle {

/// A task that begins with checking a document.
class DocumentTask : public ConfigManagerTaskImpl {
 protected:
  /// A document and what is wrong with it.
  struct Validated {
    ConfigStoreDocument::Document document;
    std::string host;  ///< BIOS UUID
    std::vector<Com::Tessel::Ryx::KestrelDaemon::ConfigurationSvc::ValidationError> errors;
    std::vector<Orbi::Data::LocalizableMessage> messages;  ///< modules that failed to check it
    std::vector<Orbi::Data::LocalizableMessage> places;    ///< of the errors
    bool passed = false;
  };

  /// The two calls of the library that share a task's percents.
  static constexpr Range kValidation{10, 30};
  static constexpr Range kAfterValidation{30, 90};

  DocumentTask(std::string operation, std::string taskId, std::string document);

  /// @throws OperationError  the document is no JSON, or cannot be checked
  [[nodiscard]] Validated Validate(bool schemaOnly, Range range);

  /// Checks the document for a task that has no use for one with violations.
  /// @throws OperationError  with the violations as further messages
  [[nodiscard]] Validated ValidateOrFail();

  /// The error with the message `id`, after logging that `what` failed.
  [[nodiscard]] Orbi::Data::ErrorValue Failed(const char* what, const char* id,
                                              const std::exception& failure) const;

 private:
  const std::string document_;
};

class ValidateTask final : public DocumentTask {
 public:
  ValidateTask(std::string taskId, std::string document, std::optional<bool> schemaOnly);

 protected:
  [[nodiscard]] Conversion Work() override;
  [[nodiscard]] Orbi::Data::ErrorValue Translate(const std::exception& failure) const override;

 private:
  const std::optional<bool> schemaOnly_;
};

/// Leaves what it found to be applied, in place of what an earlier one left.
class CheckApplyTask final : public DocumentTask {
 public:
  CheckApplyTask(std::string taskId, std::string document);

 protected:
  [[nodiscard]] Conversion Work() override;
  [[nodiscard]] Orbi::Data::ErrorValue Translate(const std::exception& failure) const override;
};

/// Applies what the last check left, which it takes: a check can be applied once.
class ApplyTask final : public ConfigManagerTaskImpl {
 public:
  ApplyTask(std::string taskId, std::string specId);

 protected:
  void Prepare() override;
  [[nodiscard]] Conversion Work() override;
  [[nodiscard]] Orbi::Data::ErrorValue Translate(const std::exception& failure) const override;

 private:
  const std::string specId_;
  std::shared_ptr<RyxConfigManager::CheckApplyResult> checked_;
};

class ImpactTask final : public DocumentTask {
 public:
  ImpactTask(std::string taskId, std::string document);

 protected:
  [[nodiscard]] Conversion Work() override;
  [[nodiscard]] Orbi::Data::ErrorValue Translate(const std::exception& failure) const override;
};

class CheckComplianceTask final : public DocumentTask {
 public:
  CheckComplianceTask(std::string taskId, std::string document);

 protected:
  [[nodiscard]] Conversion Work() override;
  [[nodiscard]] Orbi::Data::ErrorValue Translate(const std::exception& failure) const override;
};

}  // namespace LifeCycle
