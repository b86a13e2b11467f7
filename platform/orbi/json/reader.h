#pragma once

#include <cstddef>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orbi/data/value.h"
#include "orbi/json/parse.h"

namespace Orbi::Protocol::Json {

/// The two forms of a value on the wire. Plain JSON names what JSON has no literal for
/// ({"STRUCTURE": {"NAME": {...}}}, {"OPTIONAL": ...}); clean JSON leaves that to the reader's
/// knowledge.
enum class Form { kPlain, kClean };

/// Builds one value from the events of its text. Also the part of a larger receiver that meets a
/// value inside its own document.
///
/// In the plain form an object whose first member is not one of the names above is read as a
/// structure without a name, so that a request can be typed by hand; in the clean form every object
/// is. A structure, an error or such an object with the same field twice is refused.
class ValueBuilder final : public Events {
 public:
  explicit ValueBuilder(Form form) : form_(form) {}

  bool OnScalar(const Scalar& scalar) override;
  bool OnKey(std::string_view name) override;
  bool OnStart(Container container) override;
  bool OnEnd() override;

  /// Whether the value is complete.
  [[nodiscard]] bool done() const { return done_; }
  /// Why the last event was refused.
  [[nodiscard]] const std::string& objection() const { return objection_; }
  /// The complete value; at most once.
  [[nodiscard]] Data::Value Take() { return std::move(result_); }

 private:
  /// What an open container expects next.
  enum class State {
    kElement,      ///< of a list
    kFirstKey,     ///< of a plain object that has not told what it is
    kField,        ///< of a structure or an error
    kNamedObject,  ///< {"STRUCTURE": -> {
    kName,         ///< {"STRUCTURE": { -> "NAME"
    kFields,       ///< {"STRUCTURE": {"NAME": -> {
    kInner,        ///< {"OPTIONAL": -> the value
    kText,         ///< {"BINARY": or {"SECRET": -> the text
    kEnd,          ///< nothing more but closing brackets
  };
  struct Frame {
    State state;
    Data::Value value;
    std::string field;         ///< of the value to come
    std::size_t brackets = 0;  ///< open around a structure's fields
  };
  struct Tag;

  bool StartObject();
  bool StartTag(const Tag& tag);
  bool Deliver(Data::Value value);
  bool SetText(Frame& frame, std::string_view text);
  bool CheckFields(Frame& frame);
  bool RefuseShape();
  bool Refuse(std::string objection);

  const Form form_;
  std::vector<Frame> frames_;
  Data::Value result_;
  bool done_ = false;
  std::string objection_;
};

/// Reads values from plain JSON. Holds no state between calls.
class JsonDataDeserializer {
 public:
  /// Plain JSON spends up to three levels on one level of a value: whatever the clean form could
  /// carry can be stored in this form and read again.
  static constexpr std::size_t kMaxNesting = 3 * Json::kMaxNesting;

  /// Reads the one value that the text consists of.
  /// @return the value, or nothing when the text is not one; `error` then tells why
  [[nodiscard]] std::optional<Data::Value> Deserialize(std::string text,
                                                       Data::ErrorValue& error) const;
  [[nodiscard]] std::optional<Data::Value> Deserialize(std::istream& text,
                                                       Data::ErrorValue& error) const;
};

/// Reads values from clean JSON: an object becomes a structure without a name, an array a list,
/// null void. Holds no state between calls.
class JsonDirectDataDeserializer {
 public:
  static constexpr std::size_t kMaxNesting = Json::kMaxNesting;

  /// As JsonDataDeserializer.
  [[nodiscard]] std::optional<Data::Value> Deserialize(std::string text,
                                                       Data::ErrorValue& error) const;
  [[nodiscard]] std::optional<Data::Value> Deserialize(std::istream& text,
                                                       Data::ErrorValue& error) const;
};

}  // namespace Orbi::Protocol::Json
