#pragma once

#include <string>

#include "bindings/com/tessel/ryx/host_settings/software.h"
#include "bindings/com/tessel/ryx/host_settings/software/components.h"
#include "bindings/com/tessel/ryx/host_settings/software/ryx.h"

/// What the host should run: the desired software as a whole, its base image and its components.
/// The services are stateless, the image manager keeps the desired state. Each call blocks until
/// its helper has ended.

namespace Com::Tessel::Ryx::HostSettings::SoftwareSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void Get(const ::Orbi::Core::ExecutionContextPtr& context, const GetInput& input,
           ::Orbi::Core::AsyncResult<SoftwareSpec> result) override;
  void Set(const ::Orbi::Core::ExecutionContextPtr& context, const SetInput& input,
           ::Orbi::Core::AsyncResult<void> result) override;
};

}  // namespace Com::Tessel::Ryx::HostSettings::SoftwareSvc

namespace Com::Tessel::Ryx::HostSettings::Software::RyxSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void Get(const ::Orbi::Core::ExecutionContextPtr& context, const GetInput& input,
           ::Orbi::Core::AsyncResult<std::string> result) override;
  void Set(const ::Orbi::Core::ExecutionContextPtr& context, const SetInput& input,
           ::Orbi::Core::AsyncResult<void> result) override;
};

}  // namespace Com::Tessel::Ryx::HostSettings::Software::RyxSvc

namespace Com::Tessel::Ryx::HostSettings::Software::ComponentsSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void Get(const ::Orbi::Core::ExecutionContextPtr& context, const GetInput& input,
           ::Orbi::Core::AsyncResult<std::string> result) override;
  void Set(const ::Orbi::Core::ExecutionContextPtr& context, const SetInput& input,
           ::Orbi::Core::AsyncResult<void> result) override;
  void Delete(const ::Orbi::Core::ExecutionContextPtr& context, const DeleteInput& input,
              ::Orbi::Core::AsyncResult<void> result) override;
};

}  // namespace Com::Tessel::Ryx::HostSettings::Software::ComponentsSvc
