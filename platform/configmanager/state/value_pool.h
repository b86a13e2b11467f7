#pragma once

#include <rapidjson/document.h>

#include <deque>
#include <memory>
#include <string>

namespace RyxConfigManager {

/// Keeps JSON values that were parsed from texts. They stay where they are for as long as the pool
/// lives. Used by one thread at a time.
class ValuePool {
 public:
  /// @return the value; nullptr when the text is no JSON, or too deep for a configuration
  const rapidjson::Value* Parse(std::string text);

 private:
  // One for all: a document's own takes 64 KiB.
  std::unique_ptr<rapidjson::MemoryPoolAllocator<>> memory_ =
      std::make_unique<rapidjson::MemoryPoolAllocator<>>();
  std::deque<std::string> texts_;  ///< what the values' texts lie in
  std::deque<rapidjson::Value> values_;
};

}  // namespace RyxConfigManager
