#pragma once

#include <vector>

#include "bindings/com/tessel/ryx/hosts/software/components.h"
#include "bindings/com/tessel/ryx/hosts/software/ryx.h"

/// What the image manager knows about the image that the host runs. The services are stateless.
/// Each call blocks until its helper has ended.

namespace Com::Tessel::Ryx::Hosts::Software::RyxSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void Get(const ::Orbi::Core::ExecutionContextPtr& context, const GetInput& input,
           ::Orbi::Core::AsyncResult<Info> result) override;
};

}  // namespace Com::Tessel::Ryx::Hosts::Software::RyxSvc

namespace Com::Tessel::Ryx::Hosts::Software::ComponentsSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void Get(const ::Orbi::Core::ExecutionContextPtr& context, const GetInput& input,
           ::Orbi::Core::AsyncResult<Info> result) override;
  void List(const ::Orbi::Core::ExecutionContextPtr& context, const ListInput& input,
            ::Orbi::Core::AsyncResult<std::vector<Summary>> result) override;
};

}  // namespace Com::Tessel::Ryx::Hosts::Software::ComponentsSvc
