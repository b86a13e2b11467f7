#include "orbi/json/reader.h"

#include <array>
#include <iterator>
#include <type_traits>

#include "orbi/json/base64.h"
#include "orbi/l10n/catalogue.h"
#include "orbi/std/errors.h"

namespace Orbi::Protocol::Json {
namespace {

using Data::Value;

std::vector<Data::Field>* FieldsOf(Value& value) {
  if (auto* structure = value.As<Data::Structure>()) return &structure->fields;
  if (auto* error = value.As<Data::ErrorValue>()) return &error->fields;
  return nullptr;
}

template <typename T>
Value Empty() {
  return T{};
}

std::string ReadAll(std::istream& stream) {
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace

/// The members that tell a plain object's type.
struct ValueBuilder::Tag {
  std::string_view name;
  State next;
  Value (*empty)();
};

bool ValueBuilder::OnScalar(const Scalar& scalar) {
  if (const auto* text = std::get_if<std::string_view>(&scalar)) {
    if (!frames_.empty() && frames_.back().state == State::kText) {
      return SetText(frames_.back(), *text);
    }
    return Deliver(std::string(*text));
  }
  if (const auto* integer = std::get_if<std::int64_t>(&scalar)) return Deliver(Value(*integer));
  if (const auto* truth = std::get_if<bool>(&scalar)) return Deliver(Value(*truth));
  if (const auto* number = std::get_if<double>(&scalar)) return Deliver(Value(*number));
  if (std::holds_alternative<Null>(scalar)) return Deliver(Value());
  return Refuse("A number is out of range.");
}

bool ValueBuilder::OnKey(std::string_view name) {
  static constexpr std::array kTags = {
      Tag{"STRUCTURE", State::kNamedObject, &Empty<Data::Structure>},
      Tag{"OPTIONAL", State::kInner, &Empty<Data::Optional>},
      Tag{"ERROR", State::kNamedObject, &Empty<Data::ErrorValue>},
      Tag{"SECRET", State::kText, &Empty<Data::Secret>},
      Tag{"BINARY", State::kText, &Empty<Data::Blob>},
  };
  Frame& frame = frames_.back();
  switch (frame.state) {
    case State::kFirstKey:
      for (const Tag& tag : kTags) {
        if (tag.name == name) return StartTag(tag);
      }
      frame.state = State::kField;
      [[fallthrough]];
    case State::kField:
      frame.field = name;
      return true;
    case State::kName:
      if (auto* structure = frame.value.As<Data::Structure>()) structure->name = name;
      if (auto* error = frame.value.As<Data::ErrorValue>()) error->id = name;
      frame.state = State::kFields;
      return true;
    default:
      return Refuse("A typed value has a member too many.");
  }
}

bool ValueBuilder::StartTag(const Tag& tag) {
  frames_.back().state = tag.next;
  frames_.back().value = tag.empty();
  return true;
}

bool ValueBuilder::OnStart(Container container) {
  const State state = frames_.empty() ? State::kElement : frames_.back().state;
  if (state == State::kText) return Refuse("A binary or a secret must be a string.");
  if (container == Container::kObject) return StartObject();
  if (state == State::kNamedObject || state == State::kFields) return RefuseShape();
  frames_.push_back({State::kElement, Data::List{}, {}, 1});
  return true;
}

bool ValueBuilder::StartObject() {
  if (!frames_.empty()) {
    Frame& frame = frames_.back();
    if (frame.state == State::kNamedObject || frame.state == State::kFields) {
      frame.state = frame.state == State::kNamedObject ? State::kName : State::kField;
      ++frame.brackets;
      return true;
    }
  }
  const State state = form_ == Form::kPlain ? State::kFirstKey : State::kField;
  frames_.push_back({state, Data::Structure{}, {}, 1});
  return true;
}

bool ValueBuilder::OnEnd() {
  Frame& frame = frames_.back();
  if (frame.state == State::kName) return Refuse("A structure or an error lacks its name.");
  if (frame.state == State::kField && !CheckFields(frame)) return false;
  if (--frame.brackets > 0) {
    frame.state = State::kEnd;
    return true;
  }
  Value value = std::move(frame.value);
  frames_.pop_back();
  return Deliver(std::move(value));
}

bool ValueBuilder::Deliver(Value value) {
  if (frames_.empty()) {
    result_ = std::move(value);
    done_ = true;
    return true;
  }
  Frame& frame = frames_.back();
  switch (frame.state) {
    case State::kElement:
      frame.value.As<Data::List>()->items.push_back(std::move(value));
      return true;
    case State::kField:
      FieldsOf(frame.value)->push_back({std::move(frame.field), std::move(value)});
      return true;
    case State::kInner:
      // {"OPTIONAL": null} is the unset optional.
      if (!value.As<Data::Void>()) frame.value = Data::Some(std::move(value));
      frame.state = State::kEnd;
      return true;
    case State::kText:
      return Refuse("A binary or a secret must be a string.");
    default:
      return RefuseShape();
  }
}

bool ValueBuilder::SetText(Frame& frame, std::string_view text) {
  frame.state = State::kEnd;
  if (auto* secret = frame.value.As<Data::Secret>()) {
    secret->text = text;
    return true;
  }
  auto bytes = DecodeBase64(text);
  if (!bytes) return Refuse("A binary is not base64.");
  frame.value = Data::Blob{std::move(*bytes)};
  return true;
}

bool ValueBuilder::CheckFields(Frame& frame) {
  const auto& fields = *FieldsOf(frame.value);
  if (fields.size() < 2) return true;
  std::vector<std::string_view> names;
  names.reserve(fields.size());
  for (const Data::Field& field : fields) names.push_back(field.name);
  return !HasDuplicates(names) || Refuse("A structure has a field twice.");
}

bool ValueBuilder::RefuseShape() {
  return Refuse("A structure or an error is not an object within an object.");
}

bool ValueBuilder::Refuse(std::string objection) {
  objection_ = std::move(objection);
  return false;
}

namespace {

std::optional<Value> Read(Form form, std::size_t maxNesting, std::string text,
                          Data::ErrorValue& error) {
  ValueBuilder builder(form);
  const auto failure = ParseInPlace(text, maxNesting, builder);
  if (!failure) return builder.Take();
  error = Com::Tessel::Orbi::Std::Errors::InvalidArgument({L10n::FrameworkMessage(
      "orbi.data.json.invalid",
      {std::to_string(failure->offset), failure->stopped ? builder.objection() : failure->text})});
  return std::nullopt;
}

}  // namespace

std::optional<Value> JsonDataDeserializer::Deserialize(std::string text,
                                                       Data::ErrorValue& error) const {
  return Read(Form::kPlain, kMaxNesting, std::move(text), error);
}

std::optional<Value> JsonDataDeserializer::Deserialize(std::istream& text,
                                                       Data::ErrorValue& error) const {
  return Deserialize(ReadAll(text), error);
}

std::optional<Value> JsonDirectDataDeserializer::Deserialize(std::string text,
                                                             Data::ErrorValue& error) const {
  return Read(Form::kClean, kMaxNesting, std::move(text), error);
}

std::optional<Value> JsonDirectDataDeserializer::Deserialize(std::istream& text,
                                                             Data::ErrorValue& error) const {
  return Deserialize(ReadAll(text), error);
}

}  // namespace Orbi::Protocol::Json
