#pragma once

#include <rapidjson/document.h>
#include <rapidjson/error/error.h>
#include <rapidjson/stringbuffer.h>

#include <cstddef>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// Reading and writing the JSON documents that task records and configuration are kept in. Other
/// processes and clients write them too, so nothing about their shape is taken for granted.
/// Functions without state, callable from any thread.
namespace JsonDocument {

/// The largest document read or written, in bytes. The record of a task takes some 400 bytes, so
/// this is room for a good hundred thousand tasks. Helpers know the same limit.
inline constexpr std::size_t kMaxDocumentSize = std::size_t{64} << 20;

/// Nesting beyond this is refused: readers and writers of JSON recurse.
inline constexpr unsigned kMaxDocumentDepth = 1000;

/// What strings of a document may hold. What is handed on to others has to be UTF-8; what only
/// stays where it is need not be refused for it.
enum class Strings { kAnyBytes, kUtf8 };

/// Parses a document in place, strictly as RFC 8259 has it. Members of one name are all kept.
/// @param text  must outlive the document, which refers to it; its content is destroyed
/// @param maxDepth  containers within containers, the outermost counted as one
/// @return the first error: the parser's own, kParseErrorTermination for nesting too deep,
/// kParseErrorStringInvalidEncoding
///         for a string that is not UTF-8, or
///         kParseErrorDocumentRootNotSingular for a NUL byte with anything behind it
[[nodiscard]] rapidjson::ParseResult ParseInPlace(std::string& text, rapidjson::Document& document,
                                                  unsigned maxDepth = kMaxDocumentDepth,
                                                  Strings strings = Strings::kAnyBytes);

/// Where a member of an object stands in the text, in bytes from its start.
struct MemberPlace {
  std::size_t begin;    ///< right behind the member before it, or the object's opening bracket
  std::size_t nameEnd;  ///< behind the quotation mark that ends its name
  std::size_t end;      ///< behind its value
};

struct ObjectScan {
  rapidjson::ParseResult result;     ///< as of ParseInPlace
  bool isObject = false;             ///< the document begins with an object
  std::vector<MemberPlace> members;  ///< of that object, in the order of the text
};

/// Checks a document as ParseInPlace does and finds the members of the object that it is, without
/// keeping anything else of it in memory.
[[nodiscard]] ObjectScan ScanObject(std::string_view text);
/// The same of a file of any size, read from where it stands to its end.
/// @param size  of what is to be read, in bytes
[[nodiscard]] ObjectScan ScanObject(std::FILE* file, std::size_t size);

/// @return the value as compact JSON
/// @param expectedSize  of the text, in bytes
[[nodiscard]] rapidjson::StringBuffer Print(const rapidjson::Value& value,
                                            std::size_t expectedSize);

/// @return the member of that name, or nullptr when `value` is no object or has none
[[nodiscard]] const rapidjson::Value* FindMember(const rapidjson::Value& value,
                                                 std::string_view name);
[[nodiscard]] rapidjson::Value* FindMember(rapidjson::Value& value, std::string_view name);

/// The members of an object, in their order. Anything else has none.
[[nodiscard]] std::span<const rapidjson::Value::Member> Members(const rapidjson::Value& value);
[[nodiscard]] std::span<rapidjson::Value::Member> Members(rapidjson::Value& value);

/// @return the text, empty when `value` is nullptr or no string
[[nodiscard]] std::string_view TextOf(const rapidjson::Value* value);

}  // namespace JsonDocument
