#include "pcore/pcoreuser_compat.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string_view>
#include <system_error>
#include <utility>

#include "pcore/host_ctl_exception.h"
#include "pcore/spawn.h"

int PcoreuserCompat_POpen(const std::string& command, const char* mode,
                          PcoreuserCompat_Handle& handle, int standardError) {
  const bool reading = std::string_view(mode) == "r";
  if (!reading && std::string_view(mode) != "w") return EINVAL;

  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return errno;
  UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  PcoreCtl::SpawnOptions options;
  options.standardError = standardError;
  (reading ? options.standardOutput : options.standardInput) =
      reading ? writeEnd.Get() : readEnd.Get();
  try {
    handle.child_.emplace(PcoreCtl::Spawn(command, options));
    handle.foreground_.emplace(*handle.child_);
  } catch (const HostCtl::Lib::HostCtlException& error) {
    return error.code().value();
  }
  handle.pipe_ = reading ? std::move(readEnd) : std::move(writeEnd);
  return 0;
}

int PcoreuserCompat_PClose(PcoreuserCompat_Handle& handle, int& waitStatus) {
  handle.pipe_.Reset();
  if (!handle.child_) return ECHILD;
  const int status = handle.child_->Wait(waitStatus);
  handle.foreground_.reset();
  handle.child_.reset();
  return status;
}

void PcoreuserStatus_CodeToString(int status, char* buffer, std::size_t size) {
  std::snprintf(buffer, size, "%s", std::generic_category().message(status).c_str());
}
