#pragma once

#include <rapidjson/document.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tesselibs/json_document.h"

namespace LifeCycle {

/// A record of a task status file: its name and its value as they are written.
struct RecordText {
  std::string_view member;  ///< all of it
  std::string_view name;    ///< with its quotation marks
  std::string_view value;

  /// @param member  the file's bytes at the place, which may begin with what separates members
  RecordText(std::string_view member, const JsonDocument::MemberPlace& place);

  [[nodiscard]] std::string Id() const;
  /// Parses the value.
  /// @param text  keeps what the document refers to
  void Decode(rapidjson::Document& document, std::string& text) const;
};

/// The text of a task status file, and where its records stand in it. Changes replace the bytes of
/// one record and leave those of all others as they are; only a text that is not compact is written
/// anew as a whole. For one thread.
class StatusText {
 public:
  /// @param path  for the error's text
  /// @throws JsonParseError, or UnusableTaskFileError when it is no object
  StatusText(std::string text, const std::string& path);

  [[nodiscard]] std::size_t count() const { return places_.size(); }
  [[nodiscard]] const std::string& text() const { return text_; }
  [[nodiscard]] std::span<const JsonDocument::MemberPlace> places() const { return places_; }
  [[nodiscard]] RecordText operator[](std::size_t index) const;
  /// @return which record is the first of that identifier
  [[nodiscard]] std::optional<std::size_t> Find(std::string_view id) const;

  struct Replacement {
    std::size_t index;
    std::string value;
  };
  /// Replaces the values of records.
  /// @param replacements  in the order of the records
  void Replace(std::span<const Replacement> replacements);
  /// Appends a record, which is the last one then.
  void Append(const std::string& id, std::string_view value);

 private:
  [[nodiscard]] bool IsCompact() const;
  void MakeCompact();

  std::string text_;
  std::vector<JsonDocument::MemberPlace> places_;
};

/// Makes the file that goes on from one that is set aside: of its records those that somebody may
/// still ask for or change, in their order. These are the last ones, as many as go into a quarter
/// of the largest file, and of the earlier ones those of tasks that have begun and not ended.
/// @param bytes  gives the bytes of the old file from one place to another; valid until it is
/// called
///               again
/// @param own    the record that must go along
[[nodiscard]] std::string TextToGoOn(
    std::span<const JsonDocument::MemberPlace> places,
    const std::function<std::string_view(std::size_t begin, std::size_t end)>& bytes,
    std::optional<std::size_t> own, std::size_t largest);

}  // namespace LifeCycle
