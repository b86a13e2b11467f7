#include "transport/http/web_page.h"

#include <algorithm>

namespace Orbi::Transport::PicoHttp {

bool IsOfForeignPage(const RequestHead& head, std::string_view allowedOrigin) {
  // A page without an origin of its own says "null", which names nobody.
  const bool somebodyMay = !allowedOrigin.empty() && allowedOrigin != "null";
  bool allowed = false;
  bool foreign = false;
  for (const auto& [name, value] : head.headers) {
    if (name == "origin") {
      if (!somebodyMay || value != allowedOrigin) return true;
      allowed = true;
    } else if (name == "sec-fetch-site") {
      foreign |= value != "none" && value != "same-origin";
    }
  }
  return foreign && !allowed;
}

}  // namespace Orbi::Transport::PicoHttp
