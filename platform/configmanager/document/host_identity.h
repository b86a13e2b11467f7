#pragma once

#include <filesystem>
#include <string>

namespace RyxConfigManager {

/// GetBIOSUUID of a host that has its identities in these files.
/// @param productUuid  the firmware's UUID as the kernel gives it; one of all zeros or all ones is
///                      a vendor's way to have none
/// @param machineId    machine-id(5). It is to be kept from others, so what is derived from it is
///                      a name-based UUID (RFC 9562, version 5) within a name space of this system.
/// Callable from any thread.
/// @throws std::runtime_error  neither can be used
[[nodiscard]] std::string HostIdentity(const std::filesystem::path& productUuid,
                                       const std::filesystem::path& machineId);

}  // namespace RyxConfigManager
