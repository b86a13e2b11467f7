#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <tuple>

#include "configuration/messages/translator.h"
#include "software/helper_outcome.h"
#include "software/service_fixture_test.h"

namespace LifeCycle {
namespace {

using testing::Contains;
using testing::Matcher;
using testing::StartsWith;

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

const Operation& Find(const std::string& call) {
  return *std::ranges::find(kOperations, call, &Operation::call);
}

const std::string kInternal = "internal_server_error";

std::string Failed(const std::string& argument) {
  return kInternal + " host_settings.command.failed(" + argument + ")";
}

TEST_F(InlineOperations, HelperGetsItsCommandLineAndDocument) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.arguments);
    Behave({0, operation.output, 0, !operation.document.empty()});
    EXPECT_EQ(Call(operation.call, operation.input), operation.answer);
    EXPECT_EQ(HelperWords(), WordsOf(operation.arguments));
    EXPECT_EQ(HelperInput(), operation.document);
    EXPECT_THAT(log_.TakeLines(), Contains(kAsks + operation.arguments).Times(operation.piped));
  }
}

TEST_F(InlineOperations, HelperThatCannotBeStartedIsToldByTheSystemsText) {
  Vanish();
  for (const Operation& operation : kOperations)
    EXPECT_EQ(Call(operation.call, operation.input), Failed("No such file or directory"))
        << operation.arguments;
}

TEST_F(InlineOperations, ReturnCodeHasItsMeaningForEachOperation) {
  const std::string kIgnored = "ignored";
  const std::pair<std::string, std::map<int, std::string>> cases[] = {
      {"host_settings.depots list", {{1, Failed("1")}, {82, Failed("82")}}},
      {"host_settings.depots create",
       {{80, "already_exists"},
        {81, kInternal},
        {82, Failed("82")},
        {83, kInternal + " host_settings.depot.connect.error"}}},
      {"host_settings.depots delete",
       {{80, Failed("80")}, {82, "not_found host_settigns.depot.notfound"}}},
      {"host_settings.software get",
       {{1, kIgnored}, {82, "not_found host_settings.software.notfound"}}},
      {"host_settings.software set",
       {{80, Failed("80")}, {82, "not_found host_settings.software.component.notfound"}}},
      {"host_settings.software.ryx get", {{1, Failed("1")}, {82, "not_found"}}},
      {"host_settings.software.ryx set",
       {{81, Failed("81")},
        {82, "not_found host_settings.software.ryx.notfound"},
        {84, "invalid_argument"}}},
      {"host_settings.software.components get", {{81, Failed("81")}, {82, "not_found"}}},
      {"host_settings.software.components set",
       {{80, Failed("80")}, {81, "invalid_argument"}, {82, "not_found"}}},
      {"host_settings.software.components delete",
       {{80, kInternal}, {81, Failed("81")}, {82, "not_found"}}},
      {"hosts.software.ryx get", {{1, kIgnored}, {82, kIgnored}}},
      {"hosts.software.components get", {{2, Failed("No such file or directory")}}},
      {"hosts.software.components list", {{145, Failed("Unknown error 145")}}},
      {"software.installed_components list", {{82, Failed("82")}}},
      {"software.installed_image get",
       {{1, Failed("Operation not permitted")},
        {145, kInternal + " host_settings.command.failed An error occurred while extracting image "
                          "info on the host."}}},
      {"software.installed_paxs list", {{145, Failed("145")}}},
  };
  for (const auto& [call, answers] : cases) {
    const Operation& operation = Find(call);
    for (const auto& [code, answer] : answers) {
      Behave({code, operation.output, 0, !operation.document.empty()});
      EXPECT_EQ(Call(call, operation.input), answer == kIgnored ? operation.answer : answer)
          << call << " with code " << code;
    }
  }
}

TEST_F(InlineOperations, UselessOutputIsAnErrorOfItsOwn) {
  const std::string too_much((64U << 20) + 1, ' ');
  const Matcher<std::string> misfit = StartsWith(kInternal + " orbi.data.");
  const std::tuple<const char*, Behaviour, Matcher<std::string>> cases[] = {
      {"host_settings.depots list", {0, "[]x"}, kInternal},
      {"host_settings.depots list", {0, "[{}]"}, misfit},
      {"host_settings.depots list", {0, "[]", 9}, Failed("9")},
      {"host_settings.depots list", {0, too_much}, kInternal},
      {"host_settings.software get", {0, "", 9}, kInternal},
      {"host_settings.software.ryx get", {0, too_much}, Failed(std::to_string(EMSGSIZE))},
      {"hosts.software.ryx get", {82, "null"}, "not_found"},
      {"hosts.software.ryx get", {0, "null\n"}, kInternal},
      {"hosts.software.components get", {0, "null"}, "not_found"},
      {"hosts.software.components get", {0, R"({"source":"MOON"})"}, misfit},
      {"hosts.software.components list", {0, "{"}, kInternal},
      {"software.installed_components list", {0, "[]x"}, Failed("0")},
      {"software.installed_components list", {0, std::string(1000000, '[')}, Failed("0")},
      {"software.installed_components list", {0, R"([{"component":"net"}])"}, Failed("0")},
      {"software.installed_components list", {0, "[7]"}, Failed("0")},
      {"software.installed_components list", {0, "[] \n"}, "{}"},
      {"software.installed_image get", {0, "{"}, Failed("0")},
      {"software.installed_image get", {0, R"({"surprise":1})"}, misfit},
      {"software.installed_paxs list", {0, ""}, Failed("0")},
      {"software.installed_paxs list", {0, "[null]"}, misfit},
  };
  for (const auto& [call, helper, answer] : cases) {
    Behave(helper);
    EXPECT_THAT(Call(call, Find(call).input), answer) << call << helper.output.substr(0, 80);
  }
}

TEST_F(InlineOperations, UnfitArgumentIsRefusedBeforeAnyHelperRuns) {
  const std::string depot = " host_settings.depot.name.invalid";
  const std::string version = " host_settings.software.ryx.invalid";
  const std::string component = " host_settings.software.component.invalid";
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"host_settings.depots create", R"({"spec":{"name":"a+b","url":"u"}})", depot},
      {"host_settings.depots delete", R"({"depot":"a:b"})", depot},
      {"host_settings.software set", R"({"spec":{"base_image":{"version":""},"components":{}}})",
       version},
      {"host_settings.software set",
       R"({"spec":{"base_image":{"version":"8"},"components":{"a":{},"b;c":{}}}})", component},
      {"host_settings.software.ryx set", R"({"version":"8$"})", version},
      {"host_settings.software.components get", R"({"component":"a;b"})", component},
      {"host_settings.software.components set", R"({"component":"a;b"})", component},
      {"host_settings.software.components set", kNamed, ""},
      {"host_settings.software.components set", R"({"component":"a","version":""})", ""},
      {"host_settings.software.components delete", R"({"component":""})", component},
      {"hosts.software.components get", R"({"component":"~"})", component},
  };
  Behave({});
  for (const auto& [call, input, message] : cases) {
    EXPECT_EQ(Call(call, input), "invalid_argument" + message) << call << input;
    EXPECT_FALSE(HelperWasStarted());
  }
}

// Whether a pipe breaks depends on who is faster, so this end is given, not brought about.
TEST_F(InlineOperations, DocumentThatWasNotTakenIsAFailure) {
  for (const auto& operation :
       {HelperOperations::kCreateDepot, HelperOperations::kSetDesiredSoftware}) {
    const auto error = FailureOf(operation, "command", {CommandResult::kInputNotWritten, EPIPE});
    EXPECT_EQ(error ? ErrorText(*error) : "goes on", Failed("Broken pipe")) << operation.arguments;
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
