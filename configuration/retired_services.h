#pragma once

#include "bindings/com/tessel/ryx/host_settings/config.h"
#include "bindings/com/tessel/ryx/host_settings/config/components/keys.h"

/// The configuration services of the older namespace: they find nothing, whatever they are asked.

namespace Com::Tessel::Ryx::HostSettings::ConfigSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void Get(const ::Orbi::Core::ExecutionContextPtr& context, const ::Orbi::Data::Value& input,
           ::Orbi::Core::AsyncResult<::Orbi::Bindings::DynamicStructure> result) override;
  void Set(const ::Orbi::Core::ExecutionContextPtr& context, const ::Orbi::Data::Value& input,
           ::Orbi::Core::AsyncResult<void> result) override;
};

}  // namespace Com::Tessel::Ryx::HostSettings::ConfigSvc

namespace Com::Tessel::Ryx::HostSettings::Config::Components::KeysSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void Get(const ::Orbi::Core::ExecutionContextPtr& context, const ::Orbi::Data::Value& input,
           ::Orbi::Core::AsyncResult<::Orbi::Bindings::DynamicStructure> result) override;
  void Set(const ::Orbi::Core::ExecutionContextPtr& context, const ::Orbi::Data::Value& input,
           ::Orbi::Core::AsyncResult<void> result) override;
  void Delete(const ::Orbi::Core::ExecutionContextPtr& context, const ::Orbi::Data::Value& input,
              ::Orbi::Core::AsyncResult<void> result) override;
};

}  // namespace Com::Tessel::Ryx::HostSettings::Config::Components::KeysSvc
