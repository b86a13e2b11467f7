#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Orbi::Protocol::Json {

/// Appends the base64 form of `bytes` (RFC 4648, section 4, with padding) to `text`.
void AppendBase64(std::string_view bytes, std::string& text);

/// @return the bytes, or nothing when `text` is not base64 with its padding and nothing else
[[nodiscard]] std::optional<std::string> DecodeBase64(std::string_view text);

}  // namespace Orbi::Protocol::Json
