#pragma once

#include <algorithm>
#include <iosfwd>
#include <optional>
#include <span>
#include <string_view>

#include "orbi/http/phr_parse.h"

namespace Orbi::Transport::PicoHttp {

/// The head of the request that a connection is working on. All texts are views into the
/// connection's head buffer; they live until the request has been answered, and whoever needs one
/// longer copies it.
struct RequestHead {
  std::string_view method;  ///< as sent; methods are case-sensitive (RFC 9110, section 9.1)
  std::string_view path;
  int minorVersion = 1;  ///< the y of HTTP/1.y

  /// Names in lower case, sorted by name, with the pseudo-header ":method" among them.
  std::span<const HeaderField> headers;

  bool framed = false;    ///< the content type is a ".stream.json" or ".framed" type
  bool keepAlive = true;  ///< the client is willing to send another request on this connection

  /// @param name  in lower case
  /// @return the first value of that name
  [[nodiscard]] std::optional<std::string_view> Find(std::string_view name) const {
    const auto found = std::ranges::lower_bound(headers, name, {}, &HeaderField::name);
    if (found == headers.end() || found->name != name) return std::nullopt;
    return found->value;
  }
};

/// Whether a proxy has passed the request on, by its own account: what follows on the connection
/// may be another client's.
[[nodiscard]] bool PassedProxy(const RequestHead& head);

/// One line for the log: the request line and the header fields, without the values of those that
/// carry credentials.
std::ostream& operator<<(std::ostream& out, const RequestHead& head);

}  // namespace Orbi::Transport::PicoHttp
