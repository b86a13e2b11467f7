#pragma once

#include <map>
#include <string>
#include <vector>

#include "bindings/com/tessel/ryx/software/installed_components.h"
#include "bindings/com/tessel/ryx/software/installed_image.h"
#include "bindings/com/tessel/ryx/software/installed_paxs.h"

/// What is installed on the host now. The services are stateless; reading calls block until their
/// helper has ended.

namespace Com::Tessel::Ryx::Software::InstalledComponentsSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void List(
      const ::Orbi::Core::ExecutionContextPtr& context, const ListInput& input,
      ::Orbi::Core::AsyncResult<std::map<std::string, InstalledComponentInfo>> result) override;
};

}  // namespace Com::Tessel::Ryx::Software::InstalledComponentsSvc

namespace Com::Tessel::Ryx::Software::InstalledImageSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void Get(const ::Orbi::Core::ExecutionContextPtr& context, const GetInput& input,
           ::Orbi::Core::AsyncResult<Info> result) override;
  /// Starts a task; blocks for up to three seconds while another one runs.
  void ExtractDepot(const ::Orbi::Core::ExecutionContextPtr& context,
                    const ExtractDepotInput& input,
                    ::Orbi::Core::AsyncResult<std::string> result) override;
};

}  // namespace Com::Tessel::Ryx::Software::InstalledImageSvc

namespace Com::Tessel::Ryx::Software::InstalledPaxsSvc {

class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void List(const ::Orbi::Core::ExecutionContextPtr& context, const ListInput& input,
            ::Orbi::Core::AsyncResult<std::vector<PaxInfo>> result) override;
};

}  // namespace Com::Tessel::Ryx::Software::InstalledPaxsSvc
