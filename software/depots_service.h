#pragma once

#include <vector>

#include "bindings/com/tessel/ryx/host_settings/depots.h"

namespace Com::Tessel::Ryx::HostSettings::DepotsSvc {

/// The depots that the host's desired software is drawn from. Stateless: the image manager keeps
/// them. Each call blocks until its helper has ended.
class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void List(const ::Orbi::Core::ExecutionContextPtr& context, const ListInput& input,
            ::Orbi::Core::AsyncResult<std::vector<DepotSpec>> result) override;
  void Create(const ::Orbi::Core::ExecutionContextPtr& context, const CreateInput& input,
              ::Orbi::Core::AsyncResult<void> result) override;
  void Delete(const ::Orbi::Core::ExecutionContextPtr& context, const DeleteInput& input,
              ::Orbi::Core::AsyncResult<void> result) override;
};

}  // namespace Com::Tessel::Ryx::HostSettings::DepotsSvc
