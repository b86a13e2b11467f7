#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tesselibs/unique_fd.h"

namespace PcoreCtl {

/// What the resource-group word of a command line asks for:
/// "++group=NAME[,mem=N][,stats]", as in "++group=kestreld-task-forks,mem=250,stats".
struct ResourceGroup {
  std::string name;               ///< letters, digits, "-", "_" and "."
  std::uint64_t memoryLimit = 0;  ///< bytes, mem= is in MiB; 0 is no limit
  bool logUsage = false;          ///< "stats": log the time and memory used when the command ends
};

/// Removes the resource-group word from the words, wherever it stands.
/// @return nothing when there is none
/// @throws HostCtl::Lib::HostCtlException with EINVAL when it is malformed or there are two
std::optional<ResourceGroup> TakeResourceGroup(std::vector<std::string>& words);

/// Finds the part of the control-group tree (version 2) in which this process may make groups with
/// a memory limit: its own group when that hands the memory controller down already, else the one
/// above when the service manager has delegated that to it (systemd marks it with the extended
/// attribute "user.delegate" or "trusted.delegate").
/// @return nothing when the host delegates none
std::optional<std::string> FindDelegatedCgroup(const std::string& membership = "/proc/self/cgroup",
                                               const std::string& mount = "/sys/fs/cgroup");

/// Makes the group below `parent`, unless it is there, and sets its memory limit.
/// @return the group's process list, opened for writing: a process that writes "0" joins; or none
///         when any of it fails
UniqueFd OpenCgroup(const std::string& parent, const ResourceGroup& group);

}  // namespace PcoreCtl
