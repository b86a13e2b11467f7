#include "tesselibs/json_document.h"

#include <rapidjson/reader.h>
#include <rapidjson/writer.h>

#include <cmath>
#include <utility>

#include "tesselibs/utf8.h"

namespace JsonDocument {
namespace {

/// Passes a parser's events on to the document and stops the parser at what it would let pass:
/// nesting beyond the limit, a number beyond all numbers, which it takes for infinity and no writer
/// can write, and strings that are not UTF-8.
class StrictHandler {
 public:
  using Ch = char;

  StrictHandler(rapidjson::Document& document, unsigned maxDepth, Strings strings)
      : document_(document), maxDepth_(maxDepth), strings_(strings) {}

  bool Null() { return document_.Null(); }
  bool Bool(bool b) { return document_.Bool(b); }
  bool Int(int i) { return document_.Int(i); }
  bool Uint(unsigned i) { return document_.Uint(i); }
  bool Int64(std::int64_t i) { return document_.Int64(i); }
  bool Uint64(std::uint64_t i) { return document_.Uint64(i); }
  bool Double(double d) {
    return Check(std::isfinite(d), rapidjson::kParseErrorNumberTooBig) && document_.Double(d);
  }
  bool RawNumber(const char* text, rapidjson::SizeType length, bool copy) {
    return document_.RawNumber(text, length, copy);
  }
  bool String(const char* text, rapidjson::SizeType length, bool copy) {
    return CheckText(text, length) && document_.String(text, length, copy);
  }
  bool Key(const char* text, rapidjson::SizeType length, bool copy) {
    return CheckText(text, length) && document_.Key(text, length, copy);
  }
  bool StartObject() { return Enter() && document_.StartObject(); }
  bool EndObject(rapidjson::SizeType count) { return Leave() && document_.EndObject(count); }
  bool StartArray() { return Enter() && document_.StartArray(); }
  bool EndArray(rapidjson::SizeType count) { return Leave() && document_.EndArray(count); }

  /// Why the parser was stopped.
  [[nodiscard]] rapidjson::ParseErrorCode objection() const { return objection_; }

 private:
  bool Enter() { return ++depth_ <= maxDepth_; }
  bool Leave() { return depth_-- > 0; }
  bool Check(bool condition, rapidjson::ParseErrorCode objection) {
    if (!condition) objection_ = objection;
    return condition;
  }
  bool CheckText(const char* text, rapidjson::SizeType length) {
    return strings_ == Strings::kAnyBytes ||
           Check(Utf8::IsValid({text, length}), rapidjson::kParseErrorStringInvalidEncoding);
  }

  rapidjson::Document& document_;
  const unsigned maxDepth_;
  const Strings strings_;
  unsigned depth_ = 0;
  rapidjson::ParseErrorCode objection_ = rapidjson::kParseErrorTermination;
};

}  // namespace

rapidjson::ParseResult ParseInPlace(std::string& text, rapidjson::Document& document,
                                    unsigned maxDepth, Strings strings) {
  rapidjson::ParseResult result;
  const auto generate = [&](rapidjson::Document& target) {
    rapidjson::InsituStringStream stream(text.data());
    rapidjson::Reader reader;
    StrictHandler handler(target, maxDepth, strings);
    result = reader.Parse<rapidjson::kParseInsituFlag>(stream, handler);
    if (result.Code() == rapidjson::kParseErrorTermination)
      result.Set(handler.objection(), result.Offset());
    if (!result.IsError() && stream.Tell() != text.size())
      result.Set(rapidjson::kParseErrorDocumentRootNotSingular, stream.Tell());
    return !result.IsError();
  };
  document.Populate(generate);
  return result;
}

rapidjson::StringBuffer Print(const rapidjson::Value& value, std::size_t expectedSize) {
  // Before each string the writer asks for room for the worst that escaping can make of it. With
  // half as much again the text does not move, and memory that is not touched costs nothing.
  rapidjson::StringBuffer text(nullptr, expectedSize + expectedSize / 2);
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  value.Accept(writer);
  return text;
}

const rapidjson::Value* FindMember(const rapidjson::Value& value, std::string_view name) {
  if (!value.IsObject()) return nullptr;
  const auto size = static_cast<rapidjson::SizeType>(name.size());
  const auto member = value.FindMember(rapidjson::Value(rapidjson::StringRef(name.data(), size)));
  return member == value.MemberEnd() ? nullptr : &member->value;
}

rapidjson::Value* FindMember(rapidjson::Value& value, std::string_view name) {
  return const_cast<rapidjson::Value*>(FindMember(std::as_const(value), name));
}

std::span<const rapidjson::Value::Member> Members(const rapidjson::Value& value) {
  if (!value.IsObject()) return {};
  return {value.MemberBegin().operator->(), value.MemberCount()};
}

std::span<rapidjson::Value::Member> Members(rapidjson::Value& value) {
  if (!value.IsObject()) return {};
  return {value.MemberBegin().operator->(), value.MemberCount()};
}

std::string_view TextOf(const rapidjson::Value* value) {
  if (value == nullptr || !value->IsString()) return {};
  return {value->GetString(), value->GetStringLength()};
}

}  // namespace JsonDocument
