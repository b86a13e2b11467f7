#include "configmanager/state/value_pool.h"

#include <utility>

#include "configstore/document.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {

const rapidjson::Value* ValuePool::Parse(std::string text) {
  texts_.push_back(std::move(text));
  rapidjson::Document document(memory_.get());
  const auto result =
      JsonDocument::ParseInPlace(texts_.back(), document, ConfigStoreDocument::kMaxDepth);
  if (result.IsError()) return nullptr;
  values_.emplace_back();
  values_.back().Swap(static_cast<rapidjson::Value&>(document));
  return &values_.back();
}

}  // namespace RyxConfigManager
