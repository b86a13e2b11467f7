#pragma once

#include <optional>
#include <string>

#include "bindings/com/tessel/ryx/configuration/components/groups/keys.h"

namespace Com::Tessel::Ryx::Configuration::Components::Groups::KeysSvc {

/// Reads single configuration keys at once, and starts tasks that set or delete them. Starting one
/// blocks for up to two seconds while another task runs.
class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  void Get(
      const ::Orbi::Core::ExecutionContextPtr& context, const GetInput& input,
      ::Orbi::Core::AsyncResult<std::optional<::Orbi::Bindings::DynamicStructure>> result) override;
  void Set(const ::Orbi::Core::ExecutionContextPtr& context, const SetInput& input,
           ::Orbi::Core::AsyncResult<std::string> result) override;
  void Delete(const ::Orbi::Core::ExecutionContextPtr& context, const DeleteInput& input,
              ::Orbi::Core::AsyncResult<std::string> result) override;
};

}  // namespace Com::Tessel::Ryx::Configuration::Components::Groups::KeysSvc
