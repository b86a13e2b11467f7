#include "apps/lifecycle/orbi/include/logger.h"

#include <array>
#include <streambuf>
#include <string>
#include <utility>

#include "apps/lifecycle/orbi/include/verify.h"
#include "tesselibs/log.h"

namespace Host::Settings::SettingsApi {

namespace {

// Indexed by framework level. The platform's warnings have no counterpart.
constexpr std::array kPlatformLevels = {LogLevel::kDebug, LogLevel::kInformation, LogLevel::kNotice,
                                        LogLevel::kError, LogLevel::kCritical,    LogLevel::kAlert};

/// Appends what it is given to a string.
class TextBuffer : public std::streambuf {
 public:
  std::string text;

 protected:
  int_type overflow(int_type c) override {
    if (!traits_type::eq_int_type(c, traits_type::eof())) text += traits_type::to_char_type(c);
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* characters, std::streamsize count) override {
    text.append(characters, static_cast<std::size_t>(count));
    return count;
  }
};

/// More memory than this is not kept for the next line.
constexpr std::size_t kKeptCapacity = 16384;

}  // namespace

struct OrbiLoggerWrapper::Record::TextStream {
  TextBuffer buffer;
  std::ostream stream{&buffer};
};

/// Of the thread's last record, for its next: making one costs more than most lines.
thread_local std::unique_ptr<OrbiLoggerWrapper::Record::TextStream>
    OrbiLoggerWrapper::Record::spare_;

OrbiLoggerWrapper::Record::Record(LogFunction log, LogLevel platformLevel)
    : log_(log),
      platformLevel_(platformLevel),
      stream_(spare_ ? std::move(spare_) : std::make_unique<TextStream>()) {}

OrbiLoggerWrapper::Record::~Record() {
  std::string& text = stream_->buffer.text;
  log_(platformLevel_, "%s", text.c_str());
  if (text.capacity() > kKeptCapacity) return;
  text.clear();
  stream_->stream.clear();
  stream_->stream.flags(std::ios_base::skipws | std::ios_base::dec);
  spare_ = std::move(stream_);
}

std::ostream& OrbiLoggerWrapper::Record::Stream() { return stream_->stream; }

std::unique_ptr<Orbi::Log::LogRecord> OrbiLoggerWrapper::CreateRecord(int level) {
  if (level < 0 || level >= static_cast<int>(kPlatformLevels.size())) {
    NotReached("apps/lifecycle/orbi/include/logger", 94);
  }
  const LogLevel platformLevel = kPlatformLevels[static_cast<std::size_t>(level)];
  if (!Log_IsEnabled(platformLevel)) return nullptr;
  return std::make_unique<Record>(log_, platformLevel);
}

}  // namespace Host::Settings::SettingsApi
