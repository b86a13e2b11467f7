#pragma once

#include <rapidjson/document.h>

#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "configmanager/error_codes.h"
#include "configmanager/module/module.h"

namespace RyxConfigManager {

/// A description is not what it should be.
class DescriptionError : public std::runtime_error {
 public:
  /// @param code    kNoJson, kBadDescription, kUnknownFormat, or kBadValue for a default that its
  ///                own schema refuses
  /// @param detail  where and why
  DescriptionError(CMErrorCode code, const std::string& detail)
      : std::runtime_error(detail), code_(code) {}

  [[nodiscard]] CMErrorCode code() const { return code_; }

 private:
  CMErrorCode code_;
};

/// Reads the description of a module. Callable from any thread.
/// @param text  the content of module.json
/// @throws DescriptionError
[[nodiscard]] std::unique_ptr<const Module> ReadModule(const std::filesystem::path& folder,
                                                       std::string text);

}  // namespace RyxConfigManager
