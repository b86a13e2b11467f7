#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

namespace Host::Settings::SettingsApi {

/// Gives memory that large answers left free back to the system.
///
/// The allocator keeps what is free below a block in use: without this, one answer of fifty
/// megabytes leaves the process with half a gigabyte for good. It looks every ten seconds, on the
/// thread that runs the I/O context, and does nothing while less than 16 MiB beyond what is in use
/// are resident.
class MemoryTrimmer {
 public:
  /// @param io  must not run any more when the trimmer is destroyed
  explicit MemoryTrimmer(boost::asio::io_context& io);

  /// Called once, before the I/O context runs.
  void Start();

 private:
  boost::asio::steady_timer timer_;
};

}  // namespace Host::Settings::SettingsApi
