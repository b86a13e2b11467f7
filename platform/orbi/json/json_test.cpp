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
  List emptyMap{{}, true};

  return {
      {Value(), "null", "null"},
      {Value(true), "true", "true"},
      {Value(std::int64_t{INT64_MIN}), "-9223372036854775808", "-9223372036854775808"},
      {Value(1.0), "1.0", "1.0"},
      {Value(1e300), "1e+300", "1e+300"},
      {"q\" b\\ n\n \x01 \xC3\xA9 \xF0\x9F\x98\x80", R"("q\" b\\ n\n \u0001 é 😀")",
       R"("q\" b\\ n\n \u0001 é 😀")"},
      {Value(std::string(1, '\0')), R"("\u0000")", R"("\u0000")"},
      {ListOf({Value(1), "a", List{}}), R"([1,"a",[]])", R"([1,"a",[]])"},
      {Optional{}, R"({"OPTIONAL":null})", "null"},
      {Some(Value(1)), R"({"OPTIONAL":1})", "1"},
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
      {emptyMap, "[]", "{}"},
  };
}

TEST(Json, WritesBothFormsAndReadsThePlainOneBack) {
  for (const Case& c : Cases()) {
    EXPECT_EQ(JsonDataSerializer(Secrets::kWritten).Serialize(c.value), c.plain);
    EXPECT_EQ(JsonDirectDataSerializer(Secrets::kWritten).Serialize(c.value), c.clean);
    Data::ErrorValue error;
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
  std::vector<Value> blobs;
  for (int length = 0; length < 100; ++length) blobs.emplace_back(Data::Blob{Repeat("x", length)});
  const Value value = ListOf(
      {structure, Some(structure), ListOf(std::vector<Value>(100, Value(1))), ListOf(blobs)});
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
  using namespace std::string_literals;
  const struct {
    const char* reason;
    std::vector<std::string> texts;
  } cases[] = {
      {"empty", {""}},
      {"comma or '}'", {"{\"a\":1"}},
      {"comma or ']'", {"[01]"}},
      {"followed by other values", {"[1] x", "[1]]"}},
      {"zero byte", {"1\0 x"s}},
      {"Invalid value", {"// c\n1", "NaN"}},
      {"Invalid encoding", {"\"\xFF\"", "\"\xF0", "1 \xC3", "\"\xED\xA0\x80\""}},
      {"surrogate", {R"("\ud800")", R"("\udc00")", R"({"\udfff":1})"}},
      {"out of range", {"9223372036854775808", "-9223372036854775809", "-1.9e308"}},
      {"too big", {"1e400"}},
      {"twice", {R"({"a":1,"b":2,"a":3})", R"({"STRUCTURE":{"n":{"a":1,"a":2}}})"}},
      {"object within an object",
       {R"({"STRUCTURE":1})", R"({"STRUCTURE":[]})", R"({"STRUCTURE":{"n":1}})",
        R"({"ERROR":{"n":[]}})"}},
      {"lacks its name", {R"({"STRUCTURE":{}})"}},
      {"a member too many",
       {R"({"STRUCTURE":{"n":{},"m":{}}})", R"({"STRUCTURE":{"n":{}},"x":1})",
        R"({"OPTIONAL":1,"x":1})"}},
      {"must be a string", {R"({"SECRET":1})", R"({"SECRET":{}})", R"({"BINARY":[]})"}},
      {"not base64", {R"({"BINARY":"AAA"})", R"({"BINARY":"A=AA"})", R"({"BINARY":" AAA"})"}},
  };
  for (const auto& [reason, texts] : cases) {
    for (const std::string& text : texts) {
      Data::ErrorValue error;
      EXPECT_FALSE(JsonDataDeserializer().Deserialize(text, error)) << text;
      EXPECT_NE(error.ToText().find(reason), std::string::npos) << text << error.ToText();
    }
  }
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
