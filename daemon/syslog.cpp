// The process's syslog. The C library's own waits without end for a system log that nobody reads,
// and the access lock and PAM call it while calls wait for them: one wrong password would stop the
// service. Here their lines take the way of the daemon's others.
//
// These functions stand in front of the C library's, for shared libraries too, because the
// executable exports them (see CMakeLists.txt). <syslog.h> is not included: with _FORTIFY_SOURCE it
// defines them itself.

#include <array>
#include <cstdarg>
#include <cstdio>

#include "tesselibs/log.h"

extern "C" {

void vsyslog(int priority, const char* format, std::va_list arguments) {
  std::array<char, 1024> text;
  if (std::vsnprintf(text.data(), text.size(), format, arguments) < 0) return;
  constexpr int kSeverity = 7;
  const int facility = priority & ~kSeverity;
  Log_Facility(facility == 0 ? kDaemonFacility : facility,
               static_cast<LogLevel>(priority & kSeverity), text.data());
}

void syslog(int priority, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

// What programs compiled with _FORTIFY_SOURCE call instead.

void __vsyslog_chk(int priority, int, const char* format, std::va_list arguments) {
  vsyslog(priority, format, arguments);
}

void __syslog_chk(int priority, int, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

}  // extern "C"
