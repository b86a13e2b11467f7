#pragma once

#include <memory>
#include <ostream>

#include "orbi/log/logger.h"
#include "tesselibs/log_level.h"

namespace Host::Settings::SettingsApi {

/// The logger that framework, transport and provider code gets: hands each record to the host's log
/// facility. Created once at start-up and shared; callable from any thread.
///
/// | framework level | 0 | 1 | 2 | 3 | 4 | 5 |
/// |---|---|---|---|---|---|---|
/// | platform level | 7 | 6 | 5 | 3 | 2 | 1 |
class OrbiLoggerWrapper : public Orbi::Log::Logger {
 public:
  using LogFunction = void (*)(LogLevel level, const char* format, ...);

  /// @param log  where records go: the platform's Log_Level
  explicit OrbiLoggerWrapper(LogFunction log) : log_(log) {}

  /// A level outside 0 to 5 ends the process. A disabled level costs no allocation.
  std::unique_ptr<Orbi::Log::LogRecord> CreateRecord(int level) override;

  class Record;

 private:
  const LogFunction log_;
};

/// One line; the text that its stream was given is logged when the record is destroyed.
class OrbiLoggerWrapper::Record : public Orbi::Log::LogRecord {
 public:
  Record(LogFunction log, LogLevel platformLevel);
  ~Record() override;

  std::ostream& Stream() override;

 private:
  struct TextStream;
  static thread_local std::unique_ptr<TextStream> spare_;

  const LogFunction log_;
  const LogLevel platformLevel_;
  std::unique_ptr<TextStream> stream_;
};

}  // namespace Host::Settings::SettingsApi
