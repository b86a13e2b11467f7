#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

/// A fuzz target is a program of one source file, which includes this one and defines Check().

/// Ends the process when the property that a target states does not hold.
inline void Require(bool holds) {
  if (!holds) std::abort();
}

/// Requires what the target states of every `input`.
void Check(const std::string& input);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Check(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
