#pragma once

#include <string>

#include "bindings/com/tessel/ryx/kestrel_daemon/configuration.h"

namespace Com::Tessel::Ryx::KestrelDaemon::ConfigurationSvc {

/// Works with configuration documents: every operation but Export starts a task and answers with
/// its identifier. Blocks for up to two seconds while another task runs.
class ConfigurationServiceImpl final : public AsyncServiceInterface {
 public:
  void Validate(const ::Orbi::Core::ExecutionContextPtr& context, const ValidateInput& input,
                ::Orbi::Core::AsyncResult<std::string> result) override;
  void CheckApply(const ::Orbi::Core::ExecutionContextPtr& context, const CheckApplyInput& input,
                  ::Orbi::Core::AsyncResult<std::string> result) override;
  void Apply(const ::Orbi::Core::ExecutionContextPtr& context, const ApplyInput& input,
             ::Orbi::Core::AsyncResult<std::string> result) override;
  void Impact(const ::Orbi::Core::ExecutionContextPtr& context, const ImpactInput& input,
              ::Orbi::Core::AsyncResult<std::string> result) override;
  void CheckCompliance(const ::Orbi::Core::ExecutionContextPtr& context,
                       const CheckComplianceInput& input,
                       ::Orbi::Core::AsyncResult<std::string> result) override;
  void Export(const ::Orbi::Core::ExecutionContextPtr& context, const ExportInput& input,
              ::Orbi::Core::AsyncResult<ExportResult> result) override;
};

}  // namespace Com::Tessel::Ryx::KestrelDaemon::ConfigurationSvc
