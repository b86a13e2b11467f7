#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Universally unique identifiers (RFC 4122). Callable from any thread.

using UUID_Packed = std::array<std::uint8_t, 16>;

/// @return the 36-character lower-case text of a new random (version 4) identifier, or nothing when
///         the system has no random numbers to give
std::optional<std::string> UUID_CreateRandom();

/// Reads the canonical 36-character text form, in either case, into its 16 bytes.
/// @return the number of bytes packed, or 0 when the text is no such identifier
[[nodiscard]] std::size_t UUID_PackText(std::string_view text, UUID_Packed& packed);
