#pragma once

#include "bindings/com/tessel/cis/tasks.h"

namespace Com::Tessel::Cis::TasksSvc {

/// The service that clients poll for the tasks that other services started. Reads the task status
/// file anew for each call and never changes it, not even to create it. Completes on the caller's
/// thread, which waits for up to five seconds while a writer holds the file.
class AsyncServiceImpl : public AsyncServiceInterface {
 public:
  void Get(const ::Orbi::Core::ExecutionContextPtr& context, const GetInput& input,
           ::Orbi::Core::AsyncResult<Task::Info> result) override;
  void List(const ::Orbi::Core::ExecutionContextPtr& context, const ListInput& input,
            ::Orbi::Core::AsyncResult<std::map<std::string, Task::Info>> result) override;
  /// Tasks cannot be cancelled: always `unsupported`.
  void Cancel(const ::Orbi::Core::ExecutionContextPtr& context, const CancelInput& input,
              ::Orbi::Core::AsyncResult<void> result) override;
};

}  // namespace Com::Tessel::Cis::TasksSvc
