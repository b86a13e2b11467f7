#include "transport/http/request_head.h"

#include <array>
#include <ostream>

#include "orbi/log/logger.h"

namespace Orbi::Transport::PicoHttp {
namespace {

/// Fields whose values are credentials, which no log may hold.
constexpr std::array<std::string_view, 3> kSecretFields = {"authorization", "cookie",
                                                           "proxy-authorization"};

}  // namespace

std::ostream& operator<<(std::ostream& out, const RequestHead& head) {
  const auto put = [&out](const auto&... parts) { (Log::Put(out, parts), ...); };
  put(head.method, ' ', head.path, " HTTP/1.", head.minorVersion);
  for (const auto& [name, value] : head.headers) {
    if (name.starts_with(':')) continue;
    const bool secret = std::ranges::find(kSecretFields, name) != kSecretFields.end();
    put("; ", name, ": ", secret ? "***" : value);
  }
  return out;
}

}  // namespace Orbi::Transport::PicoHttp
