#include "configstore/document.h"

#include <rapidjson/error/en.h>

#include <algorithm>
#include <utility>

#include "configstore/status_error.h"
#include "tesselibs/json_document.h"
#include "tesselibs/log.h"

namespace ConfigStoreDocument {
namespace {

constexpr char kTooDeep[] = "Nested too deep.";

bool IsDeeperThan(const rapidjson::Value& value, unsigned depth) {
  if (!value.IsArray() && !value.IsObject()) return false;
  if (depth == 0) return true;
  const auto isDeeper = [depth](const rapidjson::Value& inner) {
    return IsDeeperThan(inner, depth - 1);
  };
  if (value.IsArray()) return std::ranges::any_of(value.GetArray(), isDeeper);
  return std::ranges::any_of(JsonDocument::Members(value), isDeeper,
                             &rapidjson::Value::Member::value);
}

}  // namespace

Document::Document(rapidjson::Document root)
    : root_(std::move(root)), merged_(rapidjson::kObjectType) {}

Document::Document() : root_(rapidjson::kObjectType), merged_(rapidjson::kObjectType) {}

std::string Document::ToText() const {
  const auto text = JsonDocument::Print(root_, text_ ? text_->size() : 0);
  return {text.GetString(), text.GetSize()};
}

void Document::RequireBoundedDepth() const {
  if (!IsDeeperThan(root_, kMaxDepth)) return;
  Log_Level(LogLevel::kError, "[ConfigStoreDocument]: %s\n", kTooDeep);
  throw RyxConfigStore::ConfigStoreException(RyxConfigStore::CSErrorCode::kNoJson);
}

Document CreateDocument(const std::string& text) {
  Document document;
  document.text_ = std::make_unique<std::string>(text);
  const auto result = JsonDocument::ParseInPlace(*document.text_, document.root_, kMaxDepth,
                                                 JsonDocument::Strings::kUtf8);
  if (result.IsError()) {
    const bool tooDeep = result.Code() == rapidjson::kParseErrorTermination;
    const char* const problem = tooDeep ? kTooDeep : rapidjson::GetParseError_En(result.Code());
    Log_Level(LogLevel::kError, "[ConfigStoreDocument]: %s (at byte %zu)\n", problem,
              result.Offset());
    throw Malformed(problem, result.Offset());
  }
  return document;
}

}  // namespace ConfigStoreDocument
