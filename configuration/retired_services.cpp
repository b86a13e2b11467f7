#include "configuration/retired_services.h"

#include "configuration/messages/api_errors.h"
#include "orbi/std/errors.h"

using ::Orbi::Bindings::DynamicStructure;
using ::Orbi::Core::AsyncResult;
using ::Orbi::Core::ExecutionContextPtr;
using ::Orbi::Data::Value;

namespace Errors = ::Com::Tessel::Orbi::Std::Errors;

namespace {

/// @param successor  the service to use instead
::Orbi::Data::ErrorValue Retired(const char* successor) {
  return ::LifeCycle::ApiError(Errors::NotFound, "com.tessel.ryx.host_settings.config.retired",
                               {successor});
}

}  // namespace

namespace Com::Tessel::Ryx::HostSettings::ConfigSvc {

void AsyncServiceImpl::Get(const ExecutionContextPtr&, const Value&,
                           AsyncResult<DynamicStructure> result) {
  result.SetError(Retired("com.tessel.ryx.kestrel_daemon.configuration"));
}

void AsyncServiceImpl::Set(const ExecutionContextPtr&, const Value&, AsyncResult<void> result) {
  result.SetError(Retired("com.tessel.ryx.kestrel_daemon.configuration"));
}

}  // namespace Com::Tessel::Ryx::HostSettings::ConfigSvc

namespace Com::Tessel::Ryx::HostSettings::Config::Components::KeysSvc {

void AsyncServiceImpl::Get(const ExecutionContextPtr&, const Value&,
                           AsyncResult<DynamicStructure> result) {
  result.SetError(Retired("com.tessel.ryx.configuration.components.groups.keys"));
}

void AsyncServiceImpl::Set(const ExecutionContextPtr&, const Value&, AsyncResult<void> result) {
  result.SetError(Retired("com.tessel.ryx.configuration.components.groups.keys"));
}

void AsyncServiceImpl::Delete(const ExecutionContextPtr&, const Value&, AsyncResult<void> result) {
  result.SetError(Retired("com.tessel.ryx.configuration.components.groups.keys"));
}

}  // namespace Com::Tessel::Ryx::HostSettings::Config::Components::KeysSvc
