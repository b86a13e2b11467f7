#include "configuration/retired_services.h"

#include "orbi/std/errors.h"

using ::Orbi::Bindings::DynamicStructure;
using ::Orbi::Core::AsyncResult;
using ::Orbi::Core::ExecutionContextPtr;
using ::Orbi::Data::Value;

namespace Errors = ::Com::Tessel::Orbi::Std::Errors;

namespace Com::Tessel::Ryx::HostSettings::ConfigSvc {

void AsyncServiceImpl::Get(const ExecutionContextPtr&, const Value&,
                           AsyncResult<DynamicStructure> result) {
  result.SetError(Errors::NotFound());
}

void AsyncServiceImpl::Set(const ExecutionContextPtr&, const Value&, AsyncResult<void> result) {
  result.SetError(Errors::NotFound());
}

}  // namespace Com::Tessel::Ryx::HostSettings::ConfigSvc

namespace Com::Tessel::Ryx::HostSettings::Config::Components::KeysSvc {

void AsyncServiceImpl::Get(const ExecutionContextPtr&, const Value&,
                           AsyncResult<DynamicStructure> result) {
  result.SetError(Errors::NotFound());
}

void AsyncServiceImpl::Set(const ExecutionContextPtr&, const Value&, AsyncResult<void> result) {
  result.SetError(Errors::NotFound());
}

void AsyncServiceImpl::Delete(const ExecutionContextPtr&, const Value&, AsyncResult<void> result) {
  result.SetError(Errors::NotFound());
}

}  // namespace Com::Tessel::Ryx::HostSettings::Config::Components::KeysSvc
