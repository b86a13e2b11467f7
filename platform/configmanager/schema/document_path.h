#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace RyxConfigManager {

/// A place in a document: a link to the place around it and the name or index that leads here. Made
/// on the stack while a document is walked, and written out only where something is reported.
/// Refers to the outer place and to the name, which must outlive it.
class DocumentPath {
 public:
  /// The document's root.
  DocumentPath() = default;
  DocumentPath(const DocumentPath& outer, std::string_view name) : outer_(&outer), name_(name) {}
  DocumentPath(const DocumentPath& outer, std::size_t index) : outer_(&outer), index_(index) {}

  /// The place as a JSON Pointer (RFC 6901), as in "/profile/time/ntp/servers/server/0": "/" within
  /// a name is written "~1" and "~" is written "~0". The root is "/".
  [[nodiscard]] std::string ToText() const;

 private:
  void AppendTo(std::string& text) const;

  const DocumentPath* outer_ = nullptr;
  std::string_view name_;
  std::size_t index_ = kNoIndex;

  static constexpr std::size_t kNoIndex = static_cast<std::size_t>(-1);
};

}  // namespace RyxConfigManager
