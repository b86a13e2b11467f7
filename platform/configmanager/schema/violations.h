#pragma once

#include <cstddef>
#include <initializer_list>
#include <string_view>
#include <utility>
#include <vector>

#include "configmanager/results.h"
#include "configmanager/schema/document_path.h"

namespace RyxConfigManager {

/// Identifiers of what a check finds begin with this.
inline constexpr std::string_view kValidationPrefix = "com.tessel.ryx.settings.validation.";

/// Collects what is wrong with a document, or what a module reports, in the order in which it is
/// found. Used by one thread at a time.
class Violations {
 public:
  /// A document can be made of nothing but violations, each with names of any length: once this
  /// many bytes are collected, some 600 violations, further ones are only counted. A task keeps
  /// them in its record, which is read and written with every other record.
  static constexpr std::size_t kMaxText = std::size_t{1} << 16;
  /// What a violation counts at least, in bytes: a million that say nothing are too many as well.
  static constexpr std::size_t kMinText = 64;

  /// @param id         what follows kValidationPrefix
  /// @param arguments  fill the placeholders of the message's text, {1} first
  void Add(const DocumentPath& path, std::string_view id,
           std::initializer_list<std::string_view> arguments = {});
  void Add(ErrorInfo violation);

  [[nodiscard]] bool empty() const { return found_.empty(); }
  [[nodiscard]] std::size_t uncollected() const { return uncollected_; }
  [[nodiscard]] const std::vector<ErrorInfo>& found() const { return found_; }
  [[nodiscard]] std::vector<ErrorInfo> Take() { return std::move(found_); }

 private:
  std::vector<ErrorInfo> found_;
  std::size_t text_ = 0;
  std::size_t uncollected_ = 0;
};

}  // namespace RyxConfigManager
