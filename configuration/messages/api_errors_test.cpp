#include "configuration/messages/api_errors.h"

#include <gtest/gtest.h>

namespace LifeCycle {
namespace {

TEST(ApiErrors, OnlyTheExactIdentifierHasAText) {
  for (const char* id : {"com.tessel.ryx.task.lock.Error", "com.tessel.ryx.task.lock", ""})
    EXPECT_EQ(ApiMessageText(id), "Unknown message.") << id;
}

TEST(ApiErrors, ErrorCarriesItsArgumentsBothFilledInAndApart) {
  const auto error =
      ApiError(Com::Tessel::Orbi::Std::Errors::NotFound,
               "com.tessel.pelorus.lifecycle.RyxImage.ManifestConflictError", {"a{2}", "b"});
  EXPECT_EQ(error.id, "com.tessel.orbi.std.errors.not_found");
  const auto* messages = error.Find("messages")->As<Orbi::Data::List>();
  ASSERT_NE(messages, nullptr);
  ASSERT_EQ(messages->items.size(), 1U);
  const auto message = Orbi::Data::LocalizableMessage::FromValue(messages->items[0]);
  ASSERT_TRUE(message);
  EXPECT_EQ(message->default_message,
            "Hardware Support Packages with ID a{2} and b have overlapping Base Image support. Use "
            "a different package that does not overlap with package a{2}.");
  EXPECT_EQ(message->args, (std::vector<std::string>{"a{2}", "b"}));
}

}  // namespace
}  // namespace LifeCycle
