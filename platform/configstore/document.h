#pragma once

#include <rapidjson/document.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "configstore/status_error.h"

/// Configuration documents: JSON texts that tell what a host's configuration is to be, as clients
/// hand them in and as an export writes them.
///
///     {"metadata": {"schema_version": "1.0", "reference_host": "BIOS-UUID"},
///      "profile": {"COMPONENT": {"GROUP": {"KEY": {"property": "value"}}}},
///      "host-specific": {"BIOS-UUID": {"COMPONENT": {"GROUP": {"KEY": {"property": "value"}}}}}}
///
/// A key holds one object, or a list of objects that are told apart by their id property.
namespace ConfigStoreDocument {

/// Containers within containers beyond this are refused: readers of a document recurse.
inline constexpr unsigned kMaxDepth = 100;

/// A parsed document: a value that can be moved, not copied. A const document may be read from
/// several threads.
class Document {
 public:
  Document();
  /// @param root  the document; what its strings refer to must outlive it
  explicit Document(rapidjson::Document root);

  /// The document as it was given. Nothing about its shape is certain but that it is JSON.
  [[nodiscard]] const rapidjson::Value& root() const { return root_; }

  /// What the document asks of this host: an object of components, groups and keys. Empty until it
  /// was merged (RyxConfigManager::CreateMergedDocument).
  [[nodiscard]] const rapidjson::Value& merged() const { return merged_; }

  [[nodiscard]] rapidjson::Document& EditMerged() { return merged_; }

  /// The document as it was given, as compact JSON.
  [[nodiscard]] std::string ToText() const;

  /// Makes sure that CreateDocument would take the document's text.
  /// @throws RyxConfigStore::ConfigStoreException  kNoJson: it nests too deep
  void RequireBoundedDepth() const;

 private:
  friend Document CreateDocument(const std::string& text);

  std::unique_ptr<std::string> text_;  ///< the strings of the root stay where they were read
  rapidjson::Document root_;
  rapidjson::Document merged_;
};

/// A text that is no JSON, or nests too deep.
class Malformed : public RyxConfigStore::ConfigStoreException {
 public:
  Malformed(std::string problem, std::size_t offset)
      : ConfigStoreException(RyxConfigStore::CSErrorCode::kNoJson),
        problem_(std::move(problem)),
        offset_(offset) {}

  [[nodiscard]] const std::string& problem() const { return problem_; }  ///< a sentence
  [[nodiscard]] std::size_t offset() const { return offset_; }           ///< in bytes

 private:
  std::string problem_;
  std::size_t offset_;
};

/// @param text  a JSON text
/// @throws Malformed  the log tells where
Document CreateDocument(const std::string& text);

}  // namespace ConfigStoreDocument
