#include "orbi/json/writer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <utility>
#include <variant>

#include "orbi/json/base64.h"
#include "tesselibs/utf8.h"

namespace Orbi::Protocol::Json {
namespace {

using Data::Value;

/// The longest form of one character: an escape.
constexpr std::size_t kLongestCharacter = 6;
/// What may have to stand behind a string's last character.
constexpr std::size_t kLongestClosing = 3;
constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

/// Which bytes stand for themselves: printable ASCII but for the quote and the backslash.
constexpr std::array<bool, 256> kPlain = [] {
  std::array<bool, 256> plain{};
  for (int c = 0x20; c < 0x80; ++c) plain[static_cast<std::size_t>(c)] = c != '"' && c != '\\';
  return plain;
}();

void AppendEscape(char c, std::string& out) {
  static constexpr std::string_view kCharacters = "\"\\\b\f\n\r\t";
  static constexpr std::string_view kLetters = "\"\\bfnrt";
  out += '\\';
  if (const auto known = kCharacters.find(c); known != std::string_view::npos) {
    out += kLetters[known];
    return;
  }
  static constexpr std::string_view kDigits = "0123456789abcdef";
  out += "u00";
  out += kDigits[static_cast<unsigned char>(c) >> 4];
  out += kDigits[static_cast<unsigned char>(c) & 15];
}

/// Moves characters from `text` to `out`, as many as fit.
void AppendCharacters(std::string_view& text, std::string& out, std::size_t limit) {
  while (!text.empty() && out.size() + kLongestCharacter <= limit) {
    const std::string_view window = text.substr(0, limit - out.size());
    const auto* const special = std::ranges::find_if_not(
        window, [](char c) { return kPlain[static_cast<unsigned char>(c)]; });
    const auto plain = static_cast<std::size_t>(special - window.begin());
    out.append(window.substr(0, plain));
    text.remove_prefix(plain);
    if (plain > 0 || text.empty()) continue;

    if (static_cast<unsigned char>(text[0]) < 0x80) {
      AppendEscape(text[0], out);
      text.remove_prefix(1);
    } else if (const std::size_t length = Utf8::Length(text); length > 0) {
      out.append(text.substr(0, length));
      text.remove_prefix(length);
    } else {
      out += "\xEF\xBF\xBD";
      text.remove_prefix(1);
    }
  }
}

void AppendBytes(std::string_view& bytes, std::string& out, std::size_t limit) {
  const std::size_t groups = (limit - out.size()) / 4;
  const std::size_t count = groups < (bytes.size() + 2) / 3 ? groups * 3 : bytes.size();
  // Never more than an int's worth at once.
  const std::size_t part = std::min<std::size_t>(count, std::size_t{3} << 20);
  AppendBase64(bytes.substr(0, part), out);
  bytes.remove_prefix(part);
}

void AppendInteger(std::int64_t number, std::string& out) {
  std::array<char, 24> digits;
  const auto end = std::to_chars(digits.begin(), digits.end(), number).ptr;
  out.append(digits.begin(), end);
}

void AppendDouble(double number, std::string& out) {
  if (!std::isfinite(number)) {
    throw JsonSerializationError("JSON has no text for a number that is not finite");
  }
  std::array<char, 32> digits;
  const auto end = std::to_chars(digits.begin(), digits.end(), number).ptr;
  const std::string_view text(digits.begin(), static_cast<std::size_t>(end - digits.begin()));
  out += text;
  // Readers tell doubles from integers by their spelling.
  if (text.find_first_of(".e") == std::string_view::npos) out += ".0";
}

/// A map's entry when it can be an object's member.
struct Entry {
  const std::string* key = nullptr;
  const Value* value = nullptr;

  explicit Entry(const Value& item) {
    const auto* structure = item.As<Data::Structure>();
    if (!structure || structure->name != Data::kMapEntry || structure->fields.size() != 2) return;
    const Value* name = structure->Find("key");
    key = name ? name->As<std::string>() : nullptr;
    value = structure->Find("value");
  }
  explicit operator bool() const { return key && value; }
};

bool IsStringMap(const Data::List& list) {
  if (list.items.empty()) return list.is_map;
  return std::ranges::all_of(list.items, [](const Value& item) { return bool(Entry(item)); });
}

bool IsUnset(const Value& value) {
  const auto* optional = value.As<Data::Optional>();
  return optional && !optional->value;
}

}  // namespace

JsonWriter::JsonWriter(const Value& value, Form form, Secrets secrets)
    : form_(form), secrets_(secrets), root_(&value) {
  constexpr std::size_t kUsualDepth = 8;
  frames_.reserve(kUsualDepth);
}

bool JsonWriter::Write(std::string& out, std::size_t limit) {
  while (root_ || inText_ || !frames_.empty()) {
    if (limit < kLeastRoom || out.size() > limit - kLeastRoom) return true;
    if (root_) {
      Begin(*std::exchange(root_, nullptr), out);
    } else if (inText_) {
      ContinueText(out, limit);
    } else {
      Step(out);
    }
  }
  return false;
}

void JsonWriter::Step(std::string& out) {
  Frame& frame = frames_.back();
  while (!plain() && !frame.nameDone && !frame.fields.empty() && IsUnset(frame.fields[0].value)) {
    frame.fields = frame.fields.subspan(1);
  }
  if (frame.items.empty() && frame.fields.empty()) {
    out += frame.closing;
    frames_.pop_back();
    return;
  }

  const bool named = frame.entries || !frame.fields.empty();
  if (!frame.nameDone) {
    if (!std::exchange(frame.first, false)) out += ',';
    if (named) {
      frame.nameDone = true;
      out += '"';
      BeginText(frame.entries ? *Entry(frame.items[0]).key : frame.fields[0].name, Encoding::kText,
                "\":");
      return;
    }
  }
  frame.nameDone = false;
  const Value* value = nullptr;
  if (frame.fields.empty()) {
    value = frame.entries ? Entry(frame.items[0]).value : &frame.items[0];
    frame.items = frame.items.subspan(1);
  } else {
    value = &frame.fields[0].value;
    frame.fields = frame.fields.subspan(1);
  }
  Begin(*value, out);
}

void JsonWriter::Begin(const Value& value, std::string& out) {
  std::visit([&](const auto& alternative) { Put(alternative, out); }, value.storage());
}

void JsonWriter::Put(const Data::Void&, std::string& out) { out += "null"; }
void JsonWriter::Put(bool truth, std::string& out) { out += truth ? "true" : "false"; }
void JsonWriter::Put(std::int64_t number, std::string& out) { AppendInteger(number, out); }
void JsonWriter::Put(double number, std::string& out) { AppendDouble(number, out); }

void JsonWriter::Put(const std::string& text, std::string& out) {
  out += '"';
  BeginText(text, Encoding::kText, "\"");
}

void JsonWriter::Put(const Data::Blob& blob, std::string& out) {
  out += plain() ? "{\"BINARY\":\"" : "\"";
  BeginText(blob.bytes, Encoding::kBase64, plain() ? "\"}" : "\"");
}

void JsonWriter::Put(const Data::Secret& secret, std::string& out) {
  out += plain() ? "{\"SECRET\":\"" : "\"";
  const bool blanked = secrets_ == Secrets::kBlanked;
  BeginText(blanked ? std::string_view() : secret.text, Encoding::kText, plain() ? "\"}" : "\"");
}

void JsonWriter::Put(const Data::List& list, std::string& out) {
  const bool entries = !plain() && IsStringMap(list);
  out += entries ? '{' : '[';
  frames_.push_back({.items = list.items, .entries = entries, .closing = entries ? "}" : "]"});
}

void JsonWriter::Put(const Data::Optional& optional, std::string& out) {
  if (plain()) out += "{\"OPTIONAL\":";
  if (!optional.value) {
    out += plain() ? "null}" : "null";
    return;
  }
  frames_.push_back({.items = {optional.value.get(), 1}, .closing = plain() ? "}" : ""});
}

void JsonWriter::Put(const Data::Structure& structure, std::string& out) {
  if (plain()) {
    BeginNamed("{\"STRUCTURE\":{\"", structure.name, structure.fields, "}}}", out);
  } else {
    out += '{';
    frames_.push_back({.fields = structure.fields, .closing = "}"});
  }
}

void JsonWriter::Put(const Data::ErrorValue& error, std::string& out) {
  if (plain()) {
    BeginNamed("{\"ERROR\":{\"", error.id, error.fields, "}}}", out);
  } else {
    BeginNamed("{\"", error.id, error.fields, "}}", out);
  }
}

void JsonWriter::BeginNamed(std::string_view opening, std::string_view name,
                            std::span<const Data::Field> fields, std::string_view closing,
                            std::string& out) {
  out += opening;
  BeginText(name, Encoding::kText, "\":{");
  frames_.push_back({.fields = fields, .closing = closing});
}

void JsonWriter::BeginText(std::string_view text, Encoding encoding, std::string_view closing) {
  inText_ = true;
  text_ = text;
  encoding_ = encoding;
  closing_ = closing;
}

void JsonWriter::ContinueText(std::string& out, std::size_t limit) {
  const std::size_t roomForText = limit - kLongestClosing;
  if (encoding_ == Encoding::kText) {
    AppendCharacters(text_, out, roomForText);
  } else {
    AppendBytes(text_, out, roomForText);
  }
  if (!text_.empty()) return;
  out += closing_;
  inText_ = false;
}

void AppendJsonString(std::string_view text, std::string& out) {
  out += '"';
  AppendCharacters(text, out, kNoLimit);
  out += '"';
}

std::string JsonDataSerializer::Serialize(const Value& value) const {
  std::string text;
  JsonWriter(value, Form::kPlain, secrets_).Write(text);
  return text;
}

std::string JsonDirectDataSerializer::Serialize(const Value& value) const {
  std::string text;
  JsonWriter(value, Form::kClean, secrets_).Write(text);
  return text;
}

}  // namespace Orbi::Protocol::Json
