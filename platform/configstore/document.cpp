#include "configstore/document.h"

#include <rapidjson/error/en.h>

#include "configstore/status_error.h"
#include "tesselibs/json_document.h"
#include "tesselibs/log.h"

namespace ConfigStoreDocument {

Document::Document() : root_(rapidjson::kObjectType), merged_(rapidjson::kObjectType) {}

std::string Document::ToText() const {
  const auto text = JsonDocument::Print(root_, text_ ? text_->size() : 0);
  return {text.GetString(), text.GetSize()};
}

Document CreateDocument(const std::string& text) {
  Document document;
  document.text_ = std::make_unique<std::string>(text);
  const auto result = JsonDocument::ParseInPlace(*document.text_, document.root_, kMaxDepth,
                                                 JsonDocument::Strings::kUtf8);
  if (result.IsError()) {
    const bool tooDeep = result.Code() == rapidjson::kParseErrorTermination;
    Log_Level(LogLevel::kError, "[ConfigStoreDocument]: %s (at byte %zu)\n",
              tooDeep ? "Nested too deep." : rapidjson::GetParseError_En(result.Code()),
              result.Offset());
    throw RyxConfigStore::ConfigStoreException(RyxConfigStore::CSErrorCode::kNoJson);
  }
  return document;
}

}  // namespace ConfigStoreDocument
