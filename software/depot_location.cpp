#include "software/depot_location.h"

#include <algorithm>
#include <string_view>

#include "configuration/messages/api_errors.h"
#include "lifecycle/complete_operation.h"
#include "orbi/std/errors.h"

namespace LifeCycle {
namespace {

constexpr std::string_view kBlanks = " \t\n\v\f\r";
constexpr std::string_view kDigits = "0123456789";

/// "user@host:80" for "http://user@host:80/path".
std::string_view AuthorityOf(std::string_view location) {
  location.remove_prefix(std::min(location.find_first_not_of(kBlanks), location.size()));
  const std::size_t colon = location.find(':');
  if (colon < location.find_first_of("/\\?#@")) {
    const std::string_view rest = location.substr(colon + 1);
    // Without slashes, "user:password@host" begins like a scheme.
    if (rest.starts_with('/') || rest.starts_with('\\')) location = rest;
  }
  location.remove_prefix(std::min(location.find_first_not_of("/\\"), location.size()));
  return location.substr(0, location.find_first_of("/\\?#"));
}

}  // namespace

bool HasCredentials(const std::string& location) {
  const bool isPath = location.starts_with('/') && !location.starts_with("//");
  if (isPath || location.find('@') == location.npos) return false;
  std::string_view authority = AuthorityOf(location);
  if (authority.find('@') != authority.npos) return true;
  // A password may hold what ends an authority: then no port stands behind the colon.
  if (const std::size_t bracket = authority.rfind(']'); bracket != authority.npos)
    authority.remove_prefix(bracket + 1);
  const std::size_t colon = authority.find(':');
  return colon != authority.npos && colon + 1 < authority.size() &&
         authority.find_first_not_of(kDigits, colon + 1) != authority.npos;
}

void RequireNoCredentials(const std::vector<std::string>& locations, const char* message) {
  const auto found = std::ranges::find_if(locations, HasCredentials);
  if (found == locations.end()) return;
  const std::string rest = "(...)" + found->substr(found->rfind('@'));
  throw OperationError(
      ApiError(Com::Tessel::Orbi::Std::Errors::InvalidArgument, message, {},
               {ApiMessage("com.tessel.ryx.host_settings.depot.credentials", {rest})}));
}

}  // namespace LifeCycle
