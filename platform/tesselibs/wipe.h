#pragma once

#include <string.h>

#include <span>
#include <string>

/// Overwriting what may hold a password, in a way that the compiler keeps.

inline void Wipe(std::span<char> bytes) { explicit_bzero(bytes.data(), bytes.size()); }

/// Leaves the text empty. All of its capacity is overwritten: what it was longer once may still
/// stand behind its end.
inline void Wipe(std::string& text) {
  text.resize(text.capacity());
  explicit_bzero(text.data(), text.size());
  text.clear();
}
