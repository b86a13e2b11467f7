#include "transport/http/request_head.h"

#include <array>
#include <ostream>

#include "orbi/log/logger.h"

namespace Orbi::Transport::PicoHttp {
namespace {

/// Fields whose values are credentials, which no log may hold.
constexpr std::array<std::string_view, 3> kSecretFields = {"authorization", "cookie",
                                                           "proxy-authorization"};

/// Fields that proxies add: RFC 7239, RFC 9110 (section 7.6.3), and older customs.
constexpr std::array<std::string_view, 3> kProxyFields = {"forwarded", "via", "x-real-ip"};

}  // namespace

bool PassedProxy(const RequestHead& head) {
  return std::ranges::any_of(head.headers, [](const HeaderField& field) {
    return field.name.starts_with("x-forwarded-") ||
           std::ranges::find(kProxyFields, field.name) != kProxyFields.end();
  });
}

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
