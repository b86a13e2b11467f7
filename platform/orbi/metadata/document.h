#pragma once

#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "orbi/data/value.h"

namespace Orbi::Provider::Metadata {

/// A metadata document is not what it should be; what() tells where and why.
class MetadataError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A place in a metadata document, read with checks: whoever asks for something that is not there
/// or of another type gets a MetadataError that names the place. Refers to the document, which must
/// outlive it.
class Node {
 public:
  explicit Node(const Data::Value& value, std::string place = "document")
      : value_(value), place_(std::move(place)) {}

  /// The member of an object.
  [[nodiscard]] Node Member(std::string_view name) const;
  [[nodiscard]] bool Has(std::string_view name) const;
  /// Calls `visit` with the name and the place of every member of an object, in order.
  void ForEach(const std::function<void(const std::string& name, const Node&)>& visit) const;
  /// The same for the member `name` of an object, which may be left out.
  void ForEachIn(std::string_view name,
                 const std::function<void(const std::string& name, const Node&)>& visit) const;
  /// Refuses an object that has members beside these.
  const Node& Only(std::initializer_list<std::string_view> names) const;

  /// Whether this is the string `text`.
  [[nodiscard]] bool Is(std::string_view text) const;
  [[nodiscard]] const std::string& Text() const;
  [[nodiscard]] std::vector<std::string> Texts() const;
  [[nodiscard]] std::int64_t Integer() const;

  [[noreturn]] void Fail(const std::string& reason) const;

 private:
  template <typename T>
  [[nodiscard]] const T& As(const char* expected) const;
  [[nodiscard]] const Data::Structure& Object() const;

  const Data::Value& value_;
  const std::string place_;
};

/// Larger metadata files are refused.
inline constexpr std::size_t kMaxFileBytes = std::size_t{16} << 20;

/// Reads a metadata file: a JSON object of this format and component.
/// @throws MetadataError
[[nodiscard]] Data::Value ReadDocument(const std::string& component, const std::string& path);

/// @throws MetadataError when something is added that is known already
template <typename Map>
void RefuseKnown(const Map& known, const Map& added) {
  for (const auto& [identifier, description] : added) {
    if (known.contains(identifier)) throw MetadataError("'" + identifier + "' is described twice");
  }
}

}  // namespace Orbi::Provider::Metadata
