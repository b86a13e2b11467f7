#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "orbi/data/message.h"
#include "orbi/data/value.h"

namespace Orbi::Bindings {

/// What is wrong with a value that should become a native type, as messages for whoever sent it.
///
/// Each message names the place in the value ("spec.components[\"x\"].version"), what is expected
/// there and what was found. The number of messages kept is bounded: a value from outside cannot
/// make the answer larger than it is itself.
class AdaptErrors {
 public:
  static constexpr std::size_t kMaxMessages = 16;

  /// Marks the part of the value that is being adapted, for as long as it lives. `name` must live
  /// as long.
  class Location {
   public:
    Location(AdaptErrors& errors, std::string_view field) : errors_(errors) {
      errors_.path_.push_back({Step::kField, field, 0});
    }
    Location(AdaptErrors& errors, std::size_t index) : errors_(errors) {
      errors_.path_.push_back({Step::kIndex, {}, index});
    }
    static Location Key(AdaptErrors& errors, std::string_view key) { return {errors, key, Tag{}}; }
    Location(const Location&) = delete;
    Location& operator=(const Location&) = delete;
    ~Location() { errors_.path_.pop_back(); }

   private:
    struct Tag {};
    Location(AdaptErrors& errors, std::string_view key, Tag) : errors_(errors) {
      errors_.path_.push_back({Step::kKey, key, 0});
    }
    AdaptErrors& errors_;
  };

  void Mismatch(std::string_view expected, const Data::Value& found);
  /// A string that is none of those that `expected` allows.
  void MismatchedText(std::string_view expected);
  void MissingField(std::string_view structure, std::string_view field, std::string_view expected);
  void ExtraField(std::string_view structure, std::string_view field, const Data::Value& found);
  void DuplicateKey(std::string_view key);

  [[nodiscard]] bool empty() const { return messages_.empty(); }
  [[nodiscard]] const std::vector<Data::LocalizableMessage>& messages() const { return messages_; }
  /// The default texts, one after the other, for a log line.
  [[nodiscard]] std::string ToText() const;

 private:
  struct Step {
    enum Kind { kField, kIndex, kKey } kind;
    std::string_view name;
    std::size_t index;
  };

  void Add(std::string_view id, std::vector<std::string> args);
  [[nodiscard]] std::string Path(std::string_view field = {}) const;

  std::vector<Step> path_;
  std::vector<Data::LocalizableMessage> messages_;
};

}  // namespace Orbi::Bindings
