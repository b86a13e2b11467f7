#pragma once

#include <string_view>

#include "orbi/json/reader.h"

namespace Orbi::Transport::PicoHttp {

/// The media types of the API, each a bit of its own, so that one header value can name several.
enum MediaType : unsigned {
  kPlainJson = 1,
  kCleanJson = 2,
  kFramed = 4,
  kCleanFramed = 8,
  kPlainStream = 16,
  kCleanStream = 32,
};

/// The types that occur anywhere in a header value: a list of types sets all of their bits.
[[nodiscard]] unsigned FindMediaTypes(std::string_view headerValue);

/// A header value up to its first parameter. A browser lets every page send "text/plain" without
/// asking the server first, and whatever parameters the page likes (the Fetch standard's
/// CORS-safelisted request-headers): a type that stands among them is none.
[[nodiscard]] constexpr std::string_view TypeOf(std::string_view headerValue) {
  return headerValue.substr(0, headerValue.find(';'));
}

[[nodiscard]] std::string_view NameOf(MediaType type);

/// The form of values that a type stands for.
[[nodiscard]] Protocol::Json::Form FormOf(MediaType type);

}  // namespace Orbi::Transport::PicoHttp
