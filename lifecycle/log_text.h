#pragma once

#include <string>
#include <vector>

#include "orbi/data/message.h"
#include "tesselibs/log.h"

namespace LifeCycle {

/// Logs a text that is data: "{1}" and up stand for the arguments.
inline void LogText(LogLevel level, const char* text, const std::vector<std::string>& arguments) {
  Log_Level(level, "%s\n", Orbi::Data::FillPlaceholders(text, arguments).c_str());
}

}  // namespace LifeCycle
