#pragma once

#include "tesselibs/panic.h"

/// Checks whose failure the daemon cannot survive.
///
/// The source and line are fixed names of the check that operators and support tools know; they are
/// given in full by each check and do not follow where the code moves to.
namespace Host::Settings::SettingsApi {

/// Panics with "VERIFY source:line" unless the condition holds.
inline void Verify(bool condition, const char* source, int line) {
  if (!condition) Panic("VERIFY %s:%d\n", source, line);
}

/// Panics with "NOT_REACHED source:line": marks a branch that must never run.
[[noreturn]] inline void NotReached(const char* source, int line) {
  Panic("NOT_REACHED %s:%d\n", source, line);
}

}  // namespace Host::Settings::SettingsApi
