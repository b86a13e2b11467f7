#include "tesselibs/json_document.h"

#include <rapidjson/filereadstream.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/writer.h>

#include <array>
#include <cmath>
#include <utility>

#include "tesselibs/utf8.h"

namespace JsonDocument {
namespace {

/// Passes a parser's events on and stops the parser at what it would let pass: nesting beyond the
/// limit, a number beyond all numbers, which it takes for infinity and no writer can write, and
/// strings that are not UTF-8.
template <typename Target>
class StrictHandler {
 public:
  using Ch = char;

  StrictHandler(Target& target, unsigned maxDepth, Strings strings)
      : target_(target), maxDepth_(maxDepth), strings_(strings) {}

  bool Null() { return target_.Null(); }
  bool Bool(bool b) { return target_.Bool(b); }
  bool Int(int i) { return target_.Int(i); }
  bool Uint(unsigned i) { return target_.Uint(i); }
  bool Int64(std::int64_t i) { return target_.Int64(i); }
  bool Uint64(std::uint64_t i) { return target_.Uint64(i); }
  bool Double(double d) {
    return Check(std::isfinite(d), rapidjson::kParseErrorNumberTooBig) && target_.Double(d);
  }
  bool RawNumber(const char* text, rapidjson::SizeType length, bool copy) {
    return target_.RawNumber(text, length, copy);
  }
  bool String(const char* text, rapidjson::SizeType length, bool copy) {
    return CheckText(text, length) && target_.String(text, length, copy);
  }
  bool Key(const char* text, rapidjson::SizeType length, bool copy) {
    return CheckText(text, length) && target_.Key(text, length, copy);
  }
  bool StartObject() { return Enter() && target_.StartObject(); }
  bool EndObject(rapidjson::SizeType count) { return Leave() && target_.EndObject(count); }
  bool StartArray() { return Enter() && target_.StartArray(); }
  bool EndArray(rapidjson::SizeType count) { return Leave() && target_.EndArray(count); }

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

  Target& target_;
  const unsigned maxDepth_;
  const Strings strings_;
  unsigned depth_ = 0;
  rapidjson::ParseErrorCode objection_ = rapidjson::kParseErrorTermination;
};

/// Takes down where the members of the outermost object stand in a stream that tells its place.
template <typename Stream>
class PlaceFinder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, PlaceFinder<Stream>> {
 public:
  PlaceFinder(const Stream& stream, ObjectScan& scan) : stream_(stream), scan_(scan) {}

  bool Default() { return EndValue(); }
  bool Key(const char*, rapidjson::SizeType, bool) {
    if (depth_ == 1) nameEnd_ = stream_.Tell();
    return true;
  }
  bool StartObject() {
    if (depth_ == 0) {
      scan_.isObject = true;
      begin_ = stream_.Tell();
    }
    ++depth_;
    return true;
  }
  bool StartArray() { return ++depth_ > 0; }
  bool EndObject(rapidjson::SizeType) { return Leave(); }
  bool EndArray(rapidjson::SizeType) { return Leave(); }

 private:
  bool Leave() {
    --depth_;
    return EndValue();
  }
  bool EndValue() {
    if (depth_ == 1 && scan_.isObject) {
      scan_.members.push_back({begin_, nameEnd_, stream_.Tell()});
      begin_ = stream_.Tell();
    }
    return true;
  }

  const Stream& stream_;
  ObjectScan& scan_;
  unsigned depth_ = 0;
  std::size_t begin_ = 0;
  std::size_t nameEnd_ = 0;
};

template <unsigned Flags, typename Stream, typename Target>
rapidjson::ParseResult Parse(Stream& stream, std::size_t size, Target& target, unsigned maxDepth,
                             Strings strings) {
  rapidjson::Reader reader;
  StrictHandler handler(target, maxDepth, strings);
  rapidjson::ParseResult result = reader.Parse<Flags>(stream, handler);
  if (result.Code() == rapidjson::kParseErrorTermination)
    result.Set(handler.objection(), result.Offset());
  if (!result.IsError() && stream.Tell() != size)
    result.Set(rapidjson::kParseErrorDocumentRootNotSingular, stream.Tell());
  return result;
}

template <typename Stream>
ObjectScan Scan(Stream& stream, std::size_t size) {
  ObjectScan scan;
  PlaceFinder finder(stream, scan);
  scan.result = Parse<rapidjson::kParseDefaultFlags>(stream, size, finder, kMaxDocumentDepth,
                                                     Strings::kAnyBytes);
  return scan;
}

}  // namespace

rapidjson::ParseResult ParseInPlace(std::string& text, rapidjson::Document& document,
                                    unsigned maxDepth, Strings strings) {
  rapidjson::ParseResult result;
  const auto generate = [&](rapidjson::Document& target) {
    rapidjson::InsituStringStream stream(text.data());
    result = Parse<rapidjson::kParseInsituFlag>(stream, text.size(), target, maxDepth, strings);
    return !result.IsError();
  };
  document.Populate(generate);
  return result;
}

ObjectScan ScanObject(std::string_view text) {
  rapidjson::MemoryStream stream(text.data(), text.size());
  return Scan(stream, text.size());
}

ObjectScan ScanObject(std::FILE* file, std::size_t size) {
  std::array<char, 1 << 16> buffer;
  rapidjson::FileReadStream stream(file, buffer.data(), buffer.size());
  return Scan(stream, size);
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
