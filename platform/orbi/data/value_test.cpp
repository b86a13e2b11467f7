#include "orbi/data/value.h"

#include <gtest/gtest.h>

#include "orbi/core/provider.h"
#include "orbi/data/message.h"
#include "orbi/std/errors.h"

namespace Orbi::Data {
namespace {

TEST(Placeholders, AreFilledInOnePass) {
  const struct {
    const char* text;
    std::vector<std::string> args;
    const char* filled;
  } cases[] = {
      {"{1} and {2}, again {1}", {"a", "b"}, "a and b, again a"},
      {"'{1}' is invalid", {"{2}"}, "'{2}' is invalid"},
      {"{2} is missing, {x} and { are text", {"a"}, "{2} is missing, {x} and { are text"},
      {"cut off {1", {"a"}, "cut off {1"},
  };
  for (const auto& c : cases) EXPECT_EQ(FillPlaceholders(c.text, c.args), c.filled);
}

TEST(LocalizableMessage, SurvivesTheWayThroughAValue) {
  LocalizableMessage message = MakeMessage("id", "text {1}", {"x"});
  EXPECT_EQ(LocalizableMessage::FromValue(message.ToValue()), message);
  message.localized = "Text x";
  EXPECT_EQ(LocalizableMessage::FromValue(message.ToValue()), message);
  EXPECT_FALSE(LocalizableMessage::FromValue(Value("id")));
  Structure mistyped{"m", {}};
  mistyped.Add("id", Value(1)).Add("default_message", "t").Add("args", List{});
  EXPECT_FALSE(LocalizableMessage::FromValue(mistyped));
}

TEST(ErrorValue, TextForLogsCarriesItsMessages) {
  const auto error =
      Com::Tessel::Orbi::Std::Errors::NotFound({MakeMessage("id", "No {1}.", {"depot"})});
  EXPECT_EQ(error.ToText(), "com.tessel.orbi.std.errors.not_found: No depot.");
}

TEST(MethodCompletion, DeliversAnEmptyResultWhenForgotten) {
  int calls = 0;
  bool empty = false;
  {
    Core::MethodCompletion completion([&](Core::MethodResult result) {
      ++calls;
      empty = !result.output && !result.error;
    });
    Core::MethodCompletion moved = std::move(completion);
  }
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(empty);
}

TEST(MethodCompletionDeathTest, SecondAnswerEndsTheProcess) {
  Core::MethodCompletion completion([](Core::MethodResult) {});
  completion(Core::MethodResult::Output(Value{}));
  EXPECT_DEATH(completion(Core::MethodResult::Output(Value{})), "");
}

}  // namespace
}  // namespace Orbi::Data
