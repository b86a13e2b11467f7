#include "configuration/configuration_service.h"

#include "configmanager/config_manager.h"
#include "configuration/document_tasks.h"
#include "configuration/messages/api_errors.h"
#include "configuration/start_task.h"
#include "configuration/violation_messages.h"
#include "lifecycle/complete_operation.h"
#include "orbi/std/errors.h"

namespace Com::Tessel::Ryx::KestrelDaemon::ConfigurationSvc {

using ::Orbi::Core::AsyncResult;
using ::Orbi::Core::ExecutionContextPtr;

namespace {

std::vector<::Orbi::Data::LocalizableMessage> WhyNotExported(const std::exception& failure) {
  if (dynamic_cast<const RyxConfigManager::Aborted*>(&failure) == nullptr)
    return ::LifeCycle::DetailsOf(failure);
  return {::LifeCycle::ApiMessage("com.tessel.ryx.kestrel_daemon.configuration.export.slow")};
}

}  // namespace

void ConfigurationServiceImpl::Validate(const ExecutionContextPtr& context,
                                        const ValidateInput& input,
                                        AsyncResult<std::string> result) {
  ::LifeCycle::StartTask<::LifeCycle::ValidateTask>(context, "Validate",
                                                    ValidateMethod::taskMethodName, result,
                                                    input.document, input.schema_only);
}

void ConfigurationServiceImpl::CheckApply(const ExecutionContextPtr& context,
                                          const CheckApplyInput& input,
                                          AsyncResult<std::string> result) {
  ::LifeCycle::StartTask<::LifeCycle::CheckApplyTask>(
      context, "CheckApply", CheckApplyMethod::taskMethodName, result, input.document);
}

void ConfigurationServiceImpl::Apply(const ExecutionContextPtr& context, const ApplyInput& input,
                                     AsyncResult<std::string> result) {
  ::LifeCycle::StartTask<::LifeCycle::ApplyTask>(context, "Apply", ApplyMethod::taskMethodName,
                                                 result, input.spec_id);
}

void ConfigurationServiceImpl::Impact(const ExecutionContextPtr& context, const ImpactInput& input,
                                      AsyncResult<std::string> result) {
  ::LifeCycle::StartTask<::LifeCycle::ImpactTask>(context, "Impact", ImpactMethod::taskMethodName,
                                                  result, input.document);
}

void ConfigurationServiceImpl::CheckCompliance(const ExecutionContextPtr& context,
                                               const CheckComplianceInput& input,
                                               AsyncResult<std::string> result) {
  ::LifeCycle::StartTask<::LifeCycle::CheckComplianceTask>(
      context, "CheckCompliance", CheckComplianceMethod::taskMethodName, result, input.document);
}

void ConfigurationServiceImpl::Export(const ExecutionContextPtr&, const ExportInput&,
                                      AsyncResult<ExportResult> result) {
  ::LifeCycle::CompleteOperation("Export", result, [] {
    try {
      return ExportResult{RyxConfigManager::ExportDocument()};
    } catch (const std::exception& e) {
      Log_Level(LogLevel::kCritical, "[%s] Failed to export document: %s\n", "Export", e.what());
      throw ::LifeCycle::OperationError(::LifeCycle::ApiError(
          ::Com::Tessel::Orbi::Std::Errors::InternalServerError,
          "com.tessel.ryx.kestrel_daemon.configuration.export.doc.error", {}, WhyNotExported(e)));
    }
  });
}

}  // namespace Com::Tessel::Ryx::KestrelDaemon::ConfigurationSvc
