#pragma once

#include <string>

#include "bindings/com/tessel/ryx/hosts/settings.h"

namespace Com::Tessel::Ryx::Hosts::SettingsSvc {

/// Brings the host to a whole desired state: a configuration, a software image, or both, in one
/// task of the lifecycle helper.
///
/// Only one such task is started or runs at a time: the apply pid file is there meanwhile. It holds
/// "PRECURSOR: " and the task's identifier until the helper makes it its own, and the helper takes
/// it away in the end. The task sync file has no part in this, since the helper has the daemon
/// start configuration tasks, which need that. Stateless; may be called from several threads at
/// once, and never waits for another apply.
class AsyncServiceImpl final : public AsyncServiceInterface {
 public:
  /// Writes each given input to a document for the helper and starts it. Answers with the task's
  /// identifier, or with
  /// - `invalid_argument` and "com.tessel.ryx.apply.no.input" without configuration and image, or
  ///   "com.tessel.ryx.apply.invalid.depots" with an image and no depot to draw it from;
  /// - `not_allowed_in_current_state` and "com.tessel.ryx.lifecycle.task.contention" when another
  ///   apply has the host, or the apply pid file cannot be written: the client is to come again;
  /// - `internal_server_error` and "com.tessel.ryx.apply.unknown.error" when a document cannot be
  ///   written, the task not be recorded, or the helper not be started; a record that was made
  ///   stays.
  /// With an error none of the call's files is left.
  void Set(const ::Orbi::Core::ExecutionContextPtr& context, const SetInput& input,
           ::Orbi::Core::AsyncResult<std::string> result) override;
};

}  // namespace Com::Tessel::Ryx::Hosts::SettingsSvc
