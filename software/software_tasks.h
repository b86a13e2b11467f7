#pragma once

#include <string>

#include "bindings/com/tessel/ryx/kestrel_daemon/components.h"
#include "bindings/com/tessel/ryx/kestrel_daemon/software.h"
#include "bindings/com/tessel/ryx/kestrel_daemon/solutions.h"

/// The long operations on the host's software. Each starts the image manager as a detached helper
/// and answers with the identifier of its task; the helper keeps the task's record from then on.
/// The services are stateless. A call blocks for up to three seconds while another task runs.

namespace Com::Tessel::Ryx::KestrelDaemon::SoftwareSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void Apply(const ::Orbi::Core::ExecutionContextPtr& context, const ApplyInput& input,
             ::Orbi::Core::AsyncResult<std::string> result) override;
  void Stage(const ::Orbi::Core::ExecutionContextPtr& context, const StageInput& input,
             ::Orbi::Core::AsyncResult<std::string> result) override;
  void Scan(const ::Orbi::Core::ExecutionContextPtr& context, const ScanInput& input,
            ::Orbi::Core::AsyncResult<std::string> result) override;
};

}  // namespace Com::Tessel::Ryx::KestrelDaemon::SoftwareSvc

namespace Com::Tessel::Ryx::KestrelDaemon::ComponentsSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void Apply(const ::Orbi::Core::ExecutionContextPtr& context, const ApplyInput& input,
             ::Orbi::Core::AsyncResult<std::string> result) override;
};

}  // namespace Com::Tessel::Ryx::KestrelDaemon::ComponentsSvc

namespace Com::Tessel::Ryx::KestrelDaemon::SolutionsSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void Apply(const ::Orbi::Core::ExecutionContextPtr& context, const ApplyInput& input,
             ::Orbi::Core::AsyncResult<std::string> result) override;
  void Stage(const ::Orbi::Core::ExecutionContextPtr& context, const StageInput& input,
             ::Orbi::Core::AsyncResult<std::string> result) override;
  void Remove(const ::Orbi::Core::ExecutionContextPtr& context, const RemoveInput& input,
              ::Orbi::Core::AsyncResult<std::string> result) override;
};

}  // namespace Com::Tessel::Ryx::KestrelDaemon::SolutionsSvc
