#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <string>

#include "configuration/messages/translator.h"
#include "software/helper_outcome.h"
#include "software/service_fixture_test.h"

namespace LifeCycle {
namespace {

using testing::Contains;

using InlineOperations = ServiceFixture;

const std::string kAsks =
    "6 [RunCommand] About to run command /usr/bin/python "
    "++group=kestreld-nontask-forks,mem=110,stats "
    "/usr/lib/tessel/lifecycle/bin/imagemanagerctl.py";

const std::string kDepot = R"({"name":"main","url":"file:///depot"})";
struct Operation {
  std::string call, input;
  std::string arguments;         ///< behind the script's path
  std::string output, document;  ///< of and for a helper that succeeds
  std::string answer = output.empty() ? "null" : output;
  bool piped = !output.empty() || !document.empty();  ///< so the command line is logged
};

// One of each kind: what is asked for and what is piped, and words that come from a client.
const Operation kOperations[] = {
    {"host_settings.depots list", "{}", " depots --list ", "[" + kDepot + "]", ""},
    {"host_settings.depots create", R"({"spec":)" + kDepot + "}", " depots --create ", "", kDepot},
    {"host_settings.depots delete", R"({"depot":"d"})", " depots --delete d", "", ""},
    {"host_settings.software.components get", R"({"component":"a b"})", " components --get a b",
     "1.0", "", R"("1.0")"},
    {"host_settings.software.components set", R"({"component":"n","version":"1;x"})",
     " components --set n 1;x", "", ""},
    {"software.installed_paxs list", R"({"filter":{"orphan":true}})", " PAX --list-orphan", "[]",
     ""},
};

TEST_F(InlineOperations, HelperGetsItsCommandLineAndDocument) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.arguments);
    Behave({operation.output, !operation.document.empty()});
    EXPECT_EQ(Call(operation.call, operation.input), operation.answer);
    EXPECT_EQ(HelperWords(), WordsOf(operation.arguments));
    EXPECT_EQ(HelperInput(), operation.document);
    EXPECT_THAT(log_.TakeLines(), Contains(kAsks + operation.arguments).Times(operation.piped));
  }
}

// Whether a pipe breaks depends on who is faster, so this end is given, not brought about.
TEST_F(InlineOperations, DocumentThatWasNotTakenIsAFailure) {
  for (const auto& operation :
       {HelperOperations::kCreateDepot, HelperOperations::kSetDesiredSoftware}) {
    const auto error = FailureOf(operation, "command", {CommandResult::kInputNotWritten, EPIPE});
    EXPECT_EQ(error ? ErrorText(*error) : "goes on",
              "internal_server_error host_settings.command.failed(Broken pipe)")
        << operation.arguments;
  }
}

TEST_F(InlineOperations, CatalogueTextIsToldWithTheError) {
  GetTranslator()->AddLocale("en", {{"com.tessel.ryx.host_settings.command.failed", "Got {1}."}});
  const auto told = [](CommandResult result) {
    const auto error = FailureOf(HelperOperations::kGetInstalledImage, "command", result);
    const auto* const messages = error->Find("messages")->As<Orbi::Data::List>();
    return Orbi::Data::LocalizableMessage::FromValue(messages->items[0])->localized;
  };
  EXPECT_EQ(told({CommandResult::kFailed, EPIPE}), "Got Broken pipe.");
  EXPECT_EQ(told({CommandResult::kFailed, 145}), std::nullopt);  // not what this code means
  GetTranslator()->Replace({});
}

}  // namespace
}  // namespace LifeCycle
