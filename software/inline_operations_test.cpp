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

const std::string kSpec =
    R"({"base_image":{"version":"8.0-1"},"components":{"disk":{"version":"1.0"},"net":{}}})";
const std::string kDepot = R"({"name":"main","url":"file:///depot"})";
const std::string kNamed = R"({"component":"n"})";
const std::string kDate = R"("installed_at":"2026-03-03T00:00:00.000Z")";
const std::string kNet = R"("version":"1-1","display_name":"Net","display_version":"1")";
const std::string kBaseImage = "{" + kNet +
                               R"(,"vendor":"T","release_date":"2026-03-02T00:00:00.000Z",)" +
                               kDate + R"(,"components":{"net":"1-1"}})";
const std::string kComponent = R"({"component":"net",)" + kNet +
                               R"(,"vendor":"T","source":"ADD_ON",)" + kDate +
                               R"(,"paxs":[{"name":"p","version":"1"}]})";
const std::string kSummaries = R"([{"component":"net",)" + kNet + "}]";
const std::string kImage =
    R"({"solutions":{},"hardware_support":{},"components":{"net":{)" + kNet + R"(,"vendor":"T"}}})";
const std::string kPaxs =
    R"([{"name":"p","version":"1","vendor":"T","summary":"s","acceptance_level":"PARTNER",)"
    R"("payload_size":7,"installed_size":9,"sha256":"0",)" +
    kDate + "}]";

struct Operation {
  std::string call, input;
  std::string arguments;         ///< behind the script's path
  std::string output, document;  ///< of and for a helper that succeeds
  std::string answer = output.empty() ? "null" : output;
  bool piped = !output.empty() || !document.empty();  ///< so the command line is logged
};

const Operation kOperations[] = {
    {"host_settings.depots list", "{}", " depots --list ", "[" + kDepot + "]", ""},
    {"host_settings.depots create", R"({"spec":)" + kDepot + "}", " depots --create ", "", kDepot},
    {"host_settings.depots delete", R"({"depot":"d"})", " depots --delete d", "", ""},
    {"host_settings.software get", "{}", " software --get", kSpec, ""},
    {"host_settings.software set", R"({"spec":)" + kSpec + "}", " software --set", "", kSpec},
    {"host_settings.software.ryx get", "{}", " software_ryx --get ", "8-1", "", R"("8-1")"},
    {"host_settings.software.ryx set", R"({"version":"8"})", " software_ryx --set 8", "", ""},
    {"host_settings.software.components get", R"({"component":"a b"})", " components --get a b",
     "1.0", "", R"("1.0")"},
    {"host_settings.software.components set", R"({"component":"n","version":"1;x"})",
     " components --set n 1;x", "", ""},
    {"host_settings.software.components delete", kNamed, " components --del n", "", ""},
    {"hosts.software.ryx get", "{}", " ryx --get ", kBaseImage, ""},
    {"hosts.software.components get", kNamed, " component --get n", kComponent, ""},
    {"hosts.software.components list", "{}", " component --list ", kSummaries, ""},
    {"software.installed_components list", "{}", " component --list ", kSummaries, "",
     R"({"net":{)" + kNet + "}}"},
    {"software.installed_image get", "{}", " software --getsoftwareinfo", kImage, ""},
    {"software.installed_paxs list", "{}", " PAX --list-all", kPaxs, ""},
    {"software.installed_paxs list", R"({"filter":{"orphan":false}})", " PAX --list-all", "[]", ""},
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
