#include "orbi/data/value.h"

#include <gtest/gtest.h>

#include "orbi/core/provider.h"
#include "orbi/data/message.h"

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

TEST(MethodCompletion, DeliversAnEmptyResultWhenForgotten) {
  std::vector<Core::MethodResult> results;
  {
    Core::MethodCompletion completion([&](auto result) { results.push_back(std::move(result)); });
    const Core::MethodCompletion moved = std::move(completion);
  }
  ASSERT_EQ(results.size(), 1U);
  EXPECT_TRUE(!results[0].output && !results[0].error);
}

TEST(MethodCompletionDeathTest, SecondAnswerEndsTheProcess) {
  Core::MethodCompletion completion([](Core::MethodResult) {});
  completion(Core::MethodResult::Output(Value{}));
  EXPECT_DEATH(completion(Core::MethodResult::Output(Value{})), "");
}

}  // namespace
}  // namespace Orbi::Data
