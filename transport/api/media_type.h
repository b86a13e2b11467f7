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

/// The types that occur anywhere in a header value: a list of types sets all of their bits, and
/// parameters do not matter.
[[nodiscard]] unsigned FindMediaTypes(std::string_view headerValue);

[[nodiscard]] std::string_view NameOf(MediaType type);

/// The form of values that a type stands for.
[[nodiscard]] Protocol::Json::Form FormOf(MediaType type);

}  // namespace Orbi::Transport::PicoHttp
