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

TEST(MethodCompletionDeathTest, SecondAnswerEndsTheProcess) {
  Core::MethodCompletion completion([](const Core::MethodResult&) {});
  completion(Core::MethodResult::Output(Value{}));
  EXPECT_DEATH(completion(Core::MethodResult::Output(Value{})), "");
}

}  // namespace
}  // namespace Orbi::Data
