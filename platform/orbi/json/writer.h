#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "orbi/data/value.h"
#include "orbi/json/reader.h"

namespace Orbi::Protocol::Json {

/// Whether secrets are written as they are, or as empty strings ("secure mode").
enum class Secrets { kWritten, kBlanked };

/// A value that JSON has no text for: a double that is not finite.
class JsonSerializationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Appends a string in JSON's form, quotes included. Bytes that are not UTF-8 become U+FFFD.
void AppendJsonString(std::string_view text, std::string& out);

/// Writes the compact JSON text of one value, all at once or in pieces of any size: it keeps its
/// place in the value instead of recursing over it.
class JsonWriter {
 public:
  /// The most room that the smallest piece needs.
  static constexpr std::size_t kLeastRoom = 64;

  /// @param value  must stay as it is until the text is complete
  JsonWriter(const Data::Value& value, Form form, Secrets secrets);

  /// Appends the next part of the text to `out`, up to `limit` bytes in `out` altogether. A string
  /// longer than the room is cut between characters.
  /// @param limit  at least kLeastRoom more than `out` holds, or nothing is written
  /// @return whether there is more to write
  /// @throws JsonSerializationError  what was written so far is not a whole text
  bool Write(std::string& out, std::size_t limit = std::numeric_limits<std::size_t>::max());

 private:
  enum class Encoding { kText, kBase64 };
  /// An open container: a list's items, a structure's fields, or a map's entries.
  struct Frame {
    std::span<const Data::Value> items{};   ///< still to be written
    std::span<const Data::Field> fields{};  ///< still to be written
    bool entries = false;   ///< the items are map entries, written as an object's members
    bool nameDone = false;  ///< the next value's name has been written
    bool first = true;
    std::string_view closing{};
  };

  [[nodiscard]] bool plain() const { return form_ == Form::kPlain; }
  void Step(std::string& out);
  void Begin(const Data::Value& value, std::string& out);
  void Put(const Data::Void&, std::string& out);
  void Put(bool truth, std::string& out);
  void Put(std::int64_t number, std::string& out);
  void Put(double number, std::string& out);
  void Put(const std::string& text, std::string& out);
  void Put(const Data::Blob& blob, std::string& out);
  void Put(const Data::Secret& secret, std::string& out);
  void Put(const Data::List& list, std::string& out);
  void Put(const Data::Optional& optional, std::string& out);
  void Put(const Data::Structure& structure, std::string& out);
  void Put(const Data::ErrorValue& error, std::string& out);
  void BeginNamed(std::string_view opening, std::string_view name,
                  std::span<const Data::Field> fields, std::string_view closing, std::string& out);
  void BeginText(std::string_view text, Encoding encoding, std::string_view closing);
  void ContinueText(std::string& out, std::size_t limit);

  const Form form_;
  const Secrets secrets_;
  std::vector<Frame> frames_;

  // The string being written, and what stands behind it.
  bool inText_ = false;
  std::string_view text_;
  Encoding encoding_ = Encoding::kText;
  std::string_view closing_;
  const Data::Value* root_;  ///< until it was begun
};

/// Writes values as plain JSON. Holds no state between calls.
class JsonDataSerializer {
 public:
  explicit JsonDataSerializer(Secrets secrets) : secrets_(secrets) {}
  /// @throws JsonSerializationError
  [[nodiscard]] std::string Serialize(const Data::Value& value) const;

 private:
  Secrets secrets_;
};

/// Writes values as clean JSON. Holds no state between calls.
class JsonDirectDataSerializer {
 public:
  explicit JsonDirectDataSerializer(Secrets secrets) : secrets_(secrets) {}
  /// @throws JsonSerializationError
  [[nodiscard]] std::string Serialize(const Data::Value& value) const;

 private:
  Secrets secrets_;
};

}  // namespace Orbi::Protocol::Json
