#pragma once

#include <string>
#include <vector>

namespace LifeCycle {

/// Whether a depot's location may hold a user's name or password (RFC 3986, section 3.2.1), written
/// well or not. Only an absolute path can have an '@' as it likes.
[[nodiscard]] bool HasCredentials(const std::string& location);

/// Refuses locations with credentials: what comes behind this may write them to the system log.
/// @param message  identifier of the error's first message
/// @throws OperationError  an invalid argument, which tells the location without them
void RequireNoCredentials(const std::vector<std::string>& locations, const char* message);

}  // namespace LifeCycle
