#include "configuration/document_tasks.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>

#include "configmanager/config_manager.h"
#include "configuration/messages/api_errors.h"
#include "configuration/messages/config_manager_messages.h"
#include "configuration/violation_messages.h"
#include "orbi/std/errors.h"
#include "software/command/json_value.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

namespace Svc = Com::Tessel::Ryx::KestrelDaemon::ConfigurationSvc;
namespace Errors = Com::Tessel::Orbi::Std::Errors;
using Com::Tessel::Ryx::KestrelDaemon::ComplianceStatus;
using Orbi::Data::ErrorValue;
using Orbi::Data::LocalizableMessage;
using Orbi::Data::Value;

constexpr char kValidationError[] = "com.tessel.ryx.host_settings.cm.validation.error";
constexpr char kMoreViolations[] = "com.tessel.ryx.settings.validation.more";

/// What the last check left to be applied. Needs no lock: only one task runs at a time.
std::shared_ptr<RyxConfigManager::CheckApplyResult>& CheckedDocument() {
  static std::shared_ptr<RyxConfigManager::CheckApplyResult> slot;
  return slot;
}

/// Where a text stops being JSON.
LocalizableMessage PlaceOf(const ConfigStoreDocument::Malformed& failure, const std::string& text) {
  const auto end = text.begin() + static_cast<std::ptrdiff_t>(failure.offset());
  const auto lines = std::count(text.begin(), end, '\n');
  const auto lineStart = std::find(std::make_reverse_iterator(end), text.rend(), '\n').base();
  return ConfigManagerMessage(
      "com.tessel.ryx.settings.document.malformed",
      {failure.problem(), std::to_string(lines + 1), std::to_string(end - lineStart + 1),
       std::to_string(failure.offset())});
}

const char* MessageId(RyxConfigManager::ImpactKind kind) {
  using RyxConfigManager::ImpactKind;
  switch (kind) {
    case ImpactKind::kAdd:
      return "com.tessel.settings.impact.info.add";
    case ImpactKind::kSet:
      return "com.tessel.settings.impact.info.set";
    case ImpactKind::kDelete:
      return "com.tessel.settings.impact.info.delete";
    case ImpactKind::kReboot:
      return "com.tessel.settings.impact.info.reboot";
    case ImpactKind::kMaintenanceMode:
      return "com.tessel.settings.impact.info.maintenance-mode";
  }
  return "";
}

std::vector<Svc::ImpactInfo> ToImpacts(const std::vector<RyxConfigManager::ImpactInfo>& infos) {
  std::vector<Svc::ImpactInfo> impacts;
  for (const auto& info : infos) {
    std::vector<std::string> args;
    if (!info.key.empty()) args = {info.key, info.group, info.component};
    args.insert(args.end(), info.instances.begin(), info.instances.end());
    impacts.push_back({ConfigManagerMessage(MessageId(info.kind), std::move(args))});
  }
  return impacts;
}

ComplianceStatus ToStatus(RyxConfigManager::ComplianceStatus status) {
  switch (status) {
    case RyxConfigManager::ComplianceStatus::kCompliant:
      return ComplianceStatus::COMPLIANT;
    case RyxConfigManager::ComplianceStatus::kNonCompliant:
      return ComplianceStatus::NON_COMPLIANT;
    case RyxConfigManager::ComplianceStatus::kUnavailable:
      break;
  }
  return ComplianceStatus::UNAVAILABLE;
}

/// A value that a module reads may be one that values cannot hold, such as an integer beyond 64
/// bits: it is told as its JSON text, and the other settings as ever.
std::optional<Value> ToValue(const std::string& json) {
  if (json.empty()) return std::nullopt;
  try {
    return *JsonToValue(json);
  } catch (const OrbiJsonSerializationError&) {
    return Value(json);
  }
}

std::optional<std::string> UnlessEmpty(const std::string& text) {
  if (text.empty()) return std::nullopt;
  return text;
}

/// A violation's messages, where its path is told beside them.
std::vector<LocalizableMessage> WithReason(RyxConfigManager::ErrorInfo error) {
  error.path.clear();
  return ToMessages({&error, 1});
}

Svc::SettingCompliance ToSetting(const RyxConfigManager::SettingComplianceInfo& info) {
  return {info.component,
          info.group,
          info.key,
          UnlessEmpty(info.instance),
          ToStatus(info.status),
          ToValue(info.effective),
          ToValue(info.desired),
          ToMessages(info.messages)};
}

template <typename T>
Value Adapt(const T& native) {
  return Orbi::Bindings::Adapter<T>::ToValue(native);
}

}  // namespace

DocumentTask::DocumentTask(std::string operation, std::string taskId, std::string document)
    : ConfigManagerTaskImpl(std::move(operation), std::move(taskId)),
      document_(std::move(document)) {}

ErrorValue DocumentTask::Failed(const char* what, const char* id,
                                const std::exception& failure) const {
  Log_Level(LogLevel::kCritical, "ConfigManagerTask[%s]: %s: %s\n", label().c_str(), what,
            failure.what());
  return ApiError(Errors::Error, id, {}, DetailsOf(failure));
}

DocumentTask::Validated DocumentTask::Validate(bool schemaOnly, Range range) {
  Log_Level(LogLevel::kInformation, "ConfigManagerTask[%s]: Received document: %s\n",
            label().c_str(), document_.c_str());
  Validated validated;
  try {
    validated.document = ConfigStoreDocument::CreateDocument(document_);
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "ConfigManagerTask[%s]: JSON parse error\n", label().c_str());
    const auto* const malformed = dynamic_cast<const ConfigStoreDocument::Malformed*>(&e);
    auto why = malformed == nullptr ? DetailsOf(e) : std::vector{PlaceOf(*malformed, document_)};
    throw OperationError(ApiError(Errors::Error,
                                  "com.tessel.ryx.kestrel_daemon.configuration.parse.error", {},
                                  std::move(why)));
  }
  try {
    validated.host = RyxConfigManager::GetBIOSUUID();
    const auto schema = RyxConfigManager::GenerateHostDocumentSchema(validated.document);
    RyxConfigManager::CreateMergedDocument(schema, validated.document);
    RyxConfigManager::ValidationResult result;
    const auto task = MakeTaskInput(range);
    RyxConfigManager::Validate(validated.document, schema, result, schemaOnly, &task);
    if (!result.pluginFailure.empty())
      Log_Level(LogLevel::kCritical, "ConfigManagerTask[%s]: Validate failed: plugin failure\n",
                label().c_str());
    validated.messages = ToMessages(result.pluginErrors);
    for (const auto& error : result.errors)
      validated.errors.push_back({validated.host, UnlessEmpty(error.path), {ToMessage(error)}});
    if (result.moreErrors != 0) {
      const auto more = ConfigManagerMessage(kMoreViolations, {std::to_string(result.moreErrors)});
      validated.errors.push_back({validated.host, std::nullopt, {more}});
    }
    AppendPlaces(result.errors, validated.places);
    validated.passed = result.valid();
    return validated;
  } catch (const std::exception& e) {
    throw OperationError(Failed("Validate failed", kValidationError, e));
  }
}

DocumentTask::Validated DocumentTask::ValidateOrFail() {
  Validated validated = Validate(false, kValidation);
  if (validated.passed) return validated;
  std::vector<LocalizableMessage> messages{ApiMessage(kValidationError)};
  for (auto& error : validated.errors)
    messages.insert(messages.end(), error.messages.begin(), error.messages.end());
  for (const auto* further : {&validated.messages, &validated.places})
    messages.insert(messages.end(), further->begin(), further->end());
  throw OperationError(Errors::Error(messages));
}

ValidateTask::ValidateTask(std::string taskId, std::string document, std::optional<bool> schemaOnly)
    : DocumentTask("Validate", std::move(taskId), std::move(document)), schemaOnly_(schemaOnly) {}

ConfigManagerTaskImpl::Conversion ValidateTask::Work() {
  Validated validated = Validate(schemaOnly_.value_or(false), kWhole);
  return [result = Svc::ValidationResult{std::move(validated.errors),
                                         std::move(validated.messages)}] { return Adapt(result); };
}

ErrorValue ValidateTask::Translate(const std::exception& failure) const {
  return Failed("Validate failed", kValidationError, failure);
}

CheckApplyTask::CheckApplyTask(std::string taskId, std::string document)
    : DocumentTask("CheckApply", std::move(taskId), std::move(document)) {}

ConfigManagerTaskImpl::Conversion CheckApplyTask::Work() {
  Validated validated = Validate(false, kValidation);
  Svc::CheckApplyResult output;
  output.errors = std::move(validated.errors);
  if (!validated.messages.empty())
    output.errors.push_back({validated.host, std::nullopt, std::move(validated.messages)});
  if (validated.passed) {
    const auto task = MakeTaskInput(kAfterValidation);
    const auto checked = RyxConfigManager::CheckApply(std::move(validated.document), &task);
    CheckedDocument() = checked;
    output.spec_id = checked->specId;
    output.impacts.push_back({validated.host, ToImpacts(checked->impacts)});
    for (const auto& error : checked->errors)
      output.errors.push_back({validated.host, UnlessEmpty(error.path), WithReason(error)});
  }
  return [output = std::move(output)] { return Adapt(output); };
}

ErrorValue CheckApplyTask::Translate(const std::exception& failure) const {
  return Failed("CheckApply failed",
                "com.tessel.ryx.kestrel_daemon.configuration.check_apply.error", failure);
}

ApplyTask::ApplyTask(std::string taskId, std::string specId)
    : ConfigManagerTaskImpl("Apply", std::move(taskId)), specId_(std::move(specId)) {}

void ApplyTask::Prepare() {
  auto& slot = CheckedDocument();
  if (slot && slot->specId == specId_) {
    checked_ = std::exchange(slot, nullptr);
    return;
  }
  Log_Level(LogLevel::kCritical,
            "ConfigManagerTask[%s]: Failed find desired document with id: %s\n", label().c_str(),
            specId_.c_str());
  throw OperationError(ApiError(
      Errors::InvalidArgument,
      "com.tessel.ryx.kestrel_daemon.configuration.apply.invalid_specid.error", {},
      {ApiMessage("com.tessel.ryx.kestrel_daemon.configuration.apply.check_again", {specId_})}));
}

ConfigManagerTaskImpl::Conversion ApplyTask::Work() {
  const auto task = MakeTaskInput();
  const RyxConfigManager::ApplyResult result = RyxConfigManager::Apply(checked_, &task);
  return [output = Svc::ApplyResult{ToMessages(result.errors)}] { return Adapt(output); };
}

ErrorValue ApplyTask::Translate(const std::exception& failure) const {
  Log_Level(LogLevel::kCritical, "ConfigManagerTask[%s]: Apply failed: %s\n", label().c_str(),
            failure.what());
  if (dynamic_cast<const RyxConfigManager::InvalidImpact*>(&failure) != nullptr) {
    return ApiError(Errors::Error,
                    "com.tessel.ryx.kestrel_daemon.configuration.apply.invalid_impact.error", {},
                    {ApiMessage("com.tessel.ryx.kestrel_daemon.configuration.apply.host_changed")});
  }
  if (dynamic_cast<const RyxConfigManager::HostNotInMM*>(&failure) != nullptr) {
    return ApiError(Errors::Error,
                    "com.tessel.ryx.kestrel_daemon.configuration.apply.host_not_in_mm.error", {},
                    {ApiMessage("com.tessel.ryx.kestrel_daemon.configuration.apply.enter_mm")});
  }
  return ApiError(Errors::Error, "com.tessel.ryx.kestrel_daemon.configuration.apply.generic.error",
                  {}, DetailsOf(failure));
}

ImpactTask::ImpactTask(std::string taskId, std::string document)
    : DocumentTask("Impact", std::move(taskId), std::move(document)) {}

ConfigManagerTaskImpl::Conversion ImpactTask::Work() {
  const Validated validated = ValidateOrFail();
  RyxConfigManager::ImpactResult result;
  const auto task = MakeTaskInput(kAfterValidation);
  RyxConfigManager::Impact(validated.document, result, &task);
  Svc::ImpactResult output{ToImpacts(result.impacts)};
  for (auto& message : ToMessages(result.errors)) output.impacts.push_back({std::move(message)});
  return [output = std::move(output)] { return Adapt(output); };
}

ErrorValue ImpactTask::Translate(const std::exception& failure) const {
  return Failed("Impact analysis failed",
                "com.tessel.ryx.kestrel_daemon.configuration.impact.error", failure);
}

CheckComplianceTask::CheckComplianceTask(std::string taskId, std::string document)
    : DocumentTask("CheckCompliance", std::move(taskId), std::move(document)) {}

ConfigManagerTaskImpl::Conversion CheckComplianceTask::Work() {
  const Validated validated = ValidateOrFail();
  RyxConfigManager::ComplianceResult result;
  const auto task = MakeTaskInput(kAfterValidation);
  RyxConfigManager::CheckCompliance(validated.document, result, &task);
  Svc::ComplianceInfo host{validated.host, ToStatus(result.status), {}};
  for (const auto& setting : result.settings) {
    host.settings.push_back(ToSetting(setting));
    SetProgress(kWhole.to +
                static_cast<unsigned>(4 * host.settings.size() / result.settings.size()));
  }
  Svc::CheckComplianceResult output{host.status, {std::move(host)}};
  return [output = std::move(output)] { return Adapt(output); };
}

ErrorValue CheckComplianceTask::Translate(const std::exception& failure) const {
  return Failed("Compliance check failed",
                "com.tessel.ryx.kestrel_daemon.configuration.checkcompliance.error", failure);
}

}  // namespace LifeCycle
