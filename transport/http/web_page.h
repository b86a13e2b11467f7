#pragma once

#include <string_view>

#include "transport/http/request_head.h"

namespace Orbi::Transport::PicoHttp {

/// Whether a browser sent the request on behalf of a web page that may not call this service.
/// Browsers say so: each request other than GET and HEAD that a page makes carries Origin (Fetch
/// standard, section 3.2), also when the page's host name has been pointed at this host meanwhile,
/// and each request carries Sec-Fetch-Site (Fetch Metadata, section 2.3) wherever the browser
/// trusts the connection. Other clients send neither.
/// @param allowedOrigin  the one origin whose pages may call, "https://console.example", compared
///     to the byte; none when empty
[[nodiscard]] bool IsOfForeignPage(const RequestHead& head, std::string_view allowedOrigin);

}  // namespace Orbi::Transport::PicoHttp
