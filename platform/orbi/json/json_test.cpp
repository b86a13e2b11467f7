#include <gtest/gtest.h>

#include <sstream>

#include "orbi/json/reader.h"
#include "orbi/json/writer.h"

namespace Orbi::Protocol::Json {
namespace {

using Data::List;
using Data::Optional;
using Data::Some;
using Data::Structure;
using Data::Value;

Value MapEntry(Value key, Value value) {
  Structure entry{std::string(Data::kMapEntry), {}};
  return entry.Add("key", std::move(key)).Add("value", std::move(value));
}

Value ListOf(std::vector<Value> items) { return List{std::move(items)}; }

std::string Repeat(std::string_view text, int count) {
  std::string repeated;
  while (count-- > 0) repeated += text;
  return repeated;
}

struct Case {
  Value value;
  const char* plain;
  const char* clean;
};

std::vector<Case> Cases() {
  Structure depot{"depot", {}};
  depot.Add("name", "a").Add("vendor", Optional{}).Add("reachable", Some(Value(true)));
  Data::ErrorValue error{"not_found", {}};
  error.Add("messages", List{});
  List map{{MapEntry("x", Value(1)), MapEntry("y", Value())}};
  Structure numbered{"", {}};
  numbered.Add("key", Value(1)).Add("value", "one");
  List empty_map{{}, true};

  return {
      {Value(), "null", "null"},
      {Value(true), "true", "true"},
      {Value(std::int64_t{INT64_MIN}), "-9223372036854775808", "-9223372036854775808"},
      {Value(1.0), "1.0", "1.0"},
      {Value(0.1), "0.1", "0.1"},
      {Value(1e300), "1e+300", "1e+300"},
      {"q\" b\\ n\n \x01 \xC3\xA9 \xF0\x9F\x98\x80", R"("q\" b\\ n\n \u0001 é 😀")",
       R"("q\" b\\ n\n \u0001 é 😀")"},
      {Value(std::string(1, '\0')), R"("\u0000")", R"("\u0000")"},
      {ListOf({Value(1), "a", List{}}), R"([1,"a",[]])", R"([1,"a",[]])"},
      {Optional{}, R"({"OPTIONAL":null})", "null"},
      {Some(Value(1)), R"({"OPTIONAL":1})", "1"},
      {Data::Blob{"\xFF"}, R"({"BINARY":"/w=="})", R"("/w==")"},
      {Data::Blob{std::string("\xFF\x00x", 3)}, R"({"BINARY":"/wB4"})", R"("/wB4")"},
      {Data::Secret{"pass"}, R"({"SECRET":"pass"})", R"("pass")"},
      {depot,
       R"({"STRUCTURE":{"depot":{"name":"a","vendor":{"OPTIONAL":null},"reachable":{"OPTIONAL":true}}}})",
       R"({"name":"a","reachable":true})"},
      {error, R"({"ERROR":{"not_found":{"messages":[]}}})", R"({"not_found":{"messages":[]}})"},
      {map,
       R"([{"STRUCTURE":{"map-entry":{"key":"x","value":1}}},{"STRUCTURE":{"map-entry":{"key":"y","value":null}}}])",
       R"({"x":1,"y":null})"},
      {ListOf({MapEntry(Value(1), "one")}),
       R"([{"STRUCTURE":{"map-entry":{"key":1,"value":"one"}}}])", R"([{"key":1,"value":"one"}])"},
      {empty_map, "[]", "{}"},
  };
}

TEST(Json, WritesBothForms) {
  for (const Case& c : Cases()) {
    EXPECT_EQ(JsonDataSerializer(Secrets::kWritten).Serialize(c.value), c.plain);
    EXPECT_EQ(JsonDirectDataSerializer(Secrets::kWritten).Serialize(c.value), c.clean);
  }
}

TEST(Json, PlainFormGivesBackWhatWasWritten) {
  Data::ErrorValue error;
  for (const Case& c : Cases()) {
    EXPECT_EQ(JsonDataDeserializer().Deserialize(c.plain, error), c.value) << c.plain;
  }
}

TEST(Json, WhatIsNotUtf8BecomesAReplacementCharacter) {
  const JsonDataSerializer serializer(Secrets::kWritten);
  EXPECT_EQ(serializer.Serialize("caf\xE9, \xC3"), "\"caf\xEF\xBF\xBD, \xEF\xBF\xBD\"");
  EXPECT_EQ(serializer.Serialize("\xED\xA0\x80"), "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"");
}

TEST(Json, PiecesOfAnySizeMakeTheWholeText) {
  Structure structure{Repeat("long name ", 30), {}};
  structure.Add(Repeat("\n", 200), Repeat("é\"", 300)).Add("blob", Data::Blob{Repeat("x", 501)});
  const Value value =
      ListOf({structure, Some(structure), ListOf(std::vector<Value>(100, Value(1)))});
  for (const Form form : {Form::kPlain, Form::kClean}) {
    std::string whole;
    EXPECT_FALSE(JsonWriter(value, form, Secrets::kWritten).Write(whole));
    for (std::size_t limit = JsonWriter::kLeastRoom; limit < 20'000;
         limit += limit < 96 ? 1 : 997) {
      std::string joined, piece;
      JsonWriter writer(value, form, Secrets::kWritten);
      for (bool more = true; more; joined += piece) {
        piece.clear();
        more = writer.Write(piece, limit);
        ASSERT_LE(piece.size(), limit);
        ASSERT_FALSE(piece.empty());
      }
      EXPECT_EQ(joined, whole) << limit;
    }
  }
}

TEST(Json, CleanFormIsReadWithoutTypes) {
  Data::ErrorValue error;
  std::istringstream text(
      R"( {"a": [1, -2.5, null, true, 1e-400], "STRUCTURE": {}, "s": "\ud83d\ude00"} )");
  Structure expected;
  expected.Add("a", ListOf({Value(1), Value(-2.5), Value(), Value(true), Value(0.0)}))
      .Add("STRUCTURE", Structure{})
      .Add("s", "\xF0\x9F\x98\x80");
  EXPECT_EQ(JsonDirectDataDeserializer().Deserialize(text, error), Value(expected));
}

TEST(Json, PlainFormCanBeTypedByHand) {
  Data::ErrorValue error;
  Structure expected{"operation-input", {}};
  expected.Add("filter", Structure{}.Add("orphan", Value(true)).Add("STRUCTURE", Value(1)))
      .Add("nothing", Structure{});
  EXPECT_EQ(JsonDataDeserializer().Deserialize(
                R"({"STRUCTURE":{"operation-input":
                    {"filter":{"orphan":true,"STRUCTURE":1},"nothing":{}}}})",
                error),
            Value(expected));
}

TEST(Json, RefusesWhatIsNotAValue) {
  const struct {
    const char* text;
    const char* reason;
  } cases[] = {
      {"", "empty"},
      {"{\"a\":1", "comma or '}'"},
      {"[1] x", "followed by other values"},
      {"[1]]", "followed by other values"},
      {"// c\n1", "Invalid value"},
      {"\"\xFF\"", "Invalid encoding"},
      {"\"\xF0", "Invalid encoding"},
      {"1 \xC3", "Invalid encoding"},
      {"\"\xED\xA0\x80\"", "Invalid encoding"},
      {R"("\ud800")", "surrogate"},
      {R"("\udc00")", "surrogate"},
      {R"({"\udfff":1})", "surrogate"},
      {"9223372036854775808", "out of range"},
      {"-9223372036854775809", "out of range"},
      {"1e400", "too big"},
      {"-1.9e308", "out of range"},
      {"NaN", "Invalid value"},
      {"[01]", "comma or ']'"},
      {R"({"a":1,"b":2,"a":3})", "twice"},
      {R"({"STRUCTURE":{"n":{"a":1,"a":2}}})", "twice"},
      {R"({"STRUCTURE":1})", "object within an object"},
      {R"({"STRUCTURE":[]})", "object within an object"},
      {R"({"STRUCTURE":{}})", "lacks its name"},
      {R"({"STRUCTURE":{"n":1}})", "object within an object"},
      {R"({"STRUCTURE":{"n":{},"m":{}}})", "a member too many"},
      {R"({"STRUCTURE":{"n":{}},"x":1})", "a member too many"},
      {R"({"ERROR":{"n":[]}})", "object within an object"},
      {R"({"OPTIONAL":1,"x":1})", "a member too many"},
      {R"({"SECRET":1})", "must be a string"},
      {R"({"SECRET":{}})", "must be a string"},
      {R"({"BINARY":[]})", "must be a string"},
      {R"({"BINARY":"AAA"})", "not base64"},
      {R"({"BINARY":"A=AA"})", "not base64"},
      {R"({"BINARY":" AAA"})", "not base64"},
  };
  for (const auto& c : cases) {
    Data::ErrorValue error;
    EXPECT_FALSE(JsonDataDeserializer().Deserialize(c.text, error)) << c.text;
    EXPECT_NE(error.ToText().find(c.reason), std::string::npos) << c.text << error.ToText();
  }
  Data::ErrorValue error;
  EXPECT_FALSE(JsonDataDeserializer().Deserialize(std::string("1\0 x", 4), error));
}

TEST(Json, NestingIsBounded) {
  Data::ErrorValue error;
  const auto nested = [](int levels) { return Repeat("[", levels) + Repeat("]", levels); };
  const auto typed = [](int levels) {
    return Repeat(R"({"STRUCTURE":{"n":{"f":)", levels) + "1" + Repeat("}}}", levels);
  };
  EXPECT_TRUE(JsonDirectDataDeserializer().Deserialize(nested(100), error));
  EXPECT_FALSE(JsonDirectDataDeserializer().Deserialize(nested(101), error));
  EXPECT_TRUE(JsonDataDeserializer().Deserialize(typed(100), error));
  EXPECT_FALSE(JsonDataDeserializer().Deserialize(typed(101), error));
  EXPECT_FALSE(JsonDataDeserializer().Deserialize(Repeat("[{\"a\":", 1'000'000), error));
  EXPECT_NE(error.ToText().find("Nesting deeper than 300 levels."), std::string::npos);
}

TEST(Json, DuplicateAmongManyFieldsIsFound) {
  std::string text = "{";
  for (int i = 0; i < 50'000; ++i) text += "\"field" + std::to_string(i) + "\":1,";
  Data::ErrorValue error;
  EXPECT_TRUE(JsonDirectDataDeserializer().Deserialize(text + "\"x\":1}", error));
  EXPECT_FALSE(JsonDirectDataDeserializer().Deserialize(text + "\"field7\":1}", error));
}

}  // namespace
}  // namespace Orbi::Protocol::Json
