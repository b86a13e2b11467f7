#include "tesselibs/panic.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "tesselibs/log.h"

void Panic(const char* format, ...) {
  char text[1024];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);

  std::fputs(text, stderr);
  Log_Level(LogLevel::kEmergency, "%s", text);
  Log_Flush();
  std::abort();
}
