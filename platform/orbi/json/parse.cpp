#include "orbi/json/parse.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <system_error>
#include <vector>

#include "tesselibs/utf8.h"

namespace Orbi::Protocol::Json {
namespace {

Scalar ToNumber(std::string_view text) {
  const char* const end = text.data() + text.size();
  if (text.find_first_of(".eE") == std::string_view::npos) {
    std::int64_t integer = 0;
    const auto [last, error] = std::from_chars(text.data(), end, integer);
    if (error == std::errc{} && last == end) return integer;
    return UnrepresentableNumber{text};
  }
  double number = 0;
  const auto [last, error] = std::from_chars(text.data(), end, number);
  // from_chars reports a number too small for a double like one that is too large.
  if (error == std::errc::result_out_of_range) {
    number = std::strtod(std::string(text).c_str(), nullptr);
    return std::isfinite(number) ? Scalar{number} : Scalar{UnrepresentableNumber{text}};
  }
  if (error != std::errc{} || last != end) return UnrepresentableNumber{text};
  return number;
}

/// The parser takes an escaped lone low surrogate for a character. The text's own bytes hold none.
bool HoldsSurrogate(std::string_view text) {
  for (std::size_t at = text.find('\xED'); at != std::string_view::npos;
       at = text.find('\xED', at + 1)) {
    if (at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) >= 0xA0) return true;
  }
  return false;
}

/// Hands RapidJSON's events on, and bounds the nesting before its parser recurses.
class Handler {
 public:
  /// @param escapes  whether the text holds any
  Handler(Events& events, std::size_t maxNesting, bool escapes)
      : events_(events), maxNesting_(maxNesting), escapes_(escapes) {}

  bool Null() { return events_.OnScalar(Json::Null{}); }
  bool Bool(bool value) { return events_.OnScalar(value); }
  bool RawNumber(const char* text, rapidjson::SizeType length, bool) {
    return events_.OnScalar(ToNumber({text, length}));
  }
  bool String(const char* text, rapidjson::SizeType length, bool) {
    const std::string_view string(text, length);
    return Valid(string) && events_.OnScalar(string);
  }
  bool Key(const char* text, rapidjson::SizeType length, bool) {
    const std::string_view name(text, length);
    return Valid(name) && events_.OnKey(name);
  }
  bool StartObject() { return Deeper() && events_.OnStart(Container::kObject); }
  bool StartArray() { return Deeper() && events_.OnStart(Container::kArray); }
  bool EndObject(rapidjson::SizeType) { return Ended(); }
  bool EndArray(rapidjson::SizeType) { return Ended(); }

  // Required of a handler; numbers come as text, see RawNumber.
  bool Int(int) { return false; }
  bool Uint(unsigned) { return false; }
  bool Int64(std::int64_t) { return false; }
  bool Uint64(std::uint64_t) { return false; }
  bool Double(double) { return false; }

  /// Why this handler ended the parse; empty when its receiver did.
  [[nodiscard]] const std::string& objection() const { return objection_; }

 private:
  bool Valid(std::string_view string) {
    if (!escapes_ || !HoldsSurrogate(string)) return true;
    objection_ = rapidjson::GetParseError_En(rapidjson::kParseErrorStringUnicodeSurrogateInvalid);
    return false;
  }
  bool Deeper() {
    if (++nesting_ <= maxNesting_) return true;
    objection_ = "Nesting deeper than " + std::to_string(maxNesting_) + " levels.";
    return false;
  }
  bool Ended() {
    --nesting_;
    return events_.OnEnd();
  }

  Events& events_;
  const std::size_t maxNesting_;
  const bool escapes_;
  std::size_t nesting_ = 0;
  std::string objection_;
};

}  // namespace

std::optional<ParseFailure> ParseInPlace(std::string& text, std::size_t maxNesting,
                                         Events& events) {
  // The parser's own validation reads on behind the end of a text that is cut off within a
  // character, so the encoding is checked first, and the parser stops at the fault.
  constexpr unsigned kFlags = rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag;
  const std::size_t notUtf8 = Utf8::FindInvalid(text);
  if (notUtf8 != std::string::npos) text[notUtf8] = '\0';
  // The stream ends at the first zero byte, of which a JSON text has none.
  const std::size_t zero = text.find('\0');

  const bool escapes = text.find('\\') != std::string::npos;
  Handler handler(events, maxNesting, escapes);
  rapidjson::InsituStringStream stream(text.data());
  rapidjson::Reader reader;
  const rapidjson::ParseResult result = reader.Parse<kFlags>(stream, handler);
  if (notUtf8 != std::string::npos) {
    return ParseFailure{rapidjson::GetParseError_En(rapidjson::kParseErrorStringInvalidEncoding),
                        notUtf8};
  }
  if (!result.IsError()) {
    if (zero == std::string::npos) return std::nullopt;
    return ParseFailure{"A zero byte in the text.", zero};
  }
  const bool byHandler = result.Code() == rapidjson::kParseErrorTermination;
  if (!byHandler) return ParseFailure{rapidjson::GetParseError_En(result.Code()), result.Offset()};
  return ParseFailure{handler.objection(), result.Offset(), handler.objection().empty()};
}

bool HasDuplicates(std::span<const std::string_view> names) {
  constexpr std::size_t kFew = 8;
  if (names.size() <= kFew) {
    for (auto name = names.begin(); name != names.end(); ++name) {
      if (std::find(std::next(name), names.end(), *name) != names.end()) return true;
    }
    return false;
  }
  std::vector<std::string_view> sorted(names.begin(), names.end());
  std::ranges::sort(sorted);
  return std::ranges::adjacent_find(sorted) != sorted.end();
}

}  // namespace Orbi::Protocol::Json
