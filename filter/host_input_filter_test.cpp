#include "filter/host_input_filter.h"

#include <gmock/gmock.h>

#include "configuration/messages/api_errors.h"
#include "orbi/core/testing/echo_provider.h"
#include "tesselibs/testing/captured_log.h"

namespace {

using Orbi::Core::MethodIdentifier;
using Orbi::Data::Optional;
using Orbi::Data::Some;
using Orbi::Data::Structure;
using Orbi::Data::Value;

Value Input(Value host) { return Structure{"operation-input", {{"host", std::move(host)}}}; }

TEST(HostInputFilterTest, OnlyTheLocalHostReachesTheServiceOfAHostScopedMethod) {
  const MethodIdentifier scoped{"com.tessel.depots", "list"}, other{"com.tessel.depots", "ping"};
  const std::string localhost_and_nul("localhost\0", 10);
  const struct {
    MethodIdentifier method;
    Value input;
    std::optional<std::string> refused = {};
  } cases[] = {
      {other, Input("node7")},
      {scoped, Input("localhost")},
      {scoped, Some(Input(Some("localhost")))},
      {scoped, Input(Optional{})},
      {scoped, Input(Value{})},
      {scoped, Structure{"operation-input", {}}},
      {scoped, Value{"node7"}},  // no structure: for the service to refuse
      {scoped, Input("node7"), "node7"},
      {scoped, Some(Structure{"", {{"host", Some("node7")}}}), "node7"},
      {scoped, Input("LOCALHOST"), "LOCALHOST"},
      {scoped, Input(localhost_and_nul), localhost_and_nul},
      {scoped, Input(Orbi::Data::Secret{"localhost"}), "secret"},
  };
  const std::string checking =
      "5 Checking the host parameter value for method:com.tessel.depots.list and "
      "service:com.tessel.depots";
  CapturedLog log;
  Host::Settings::SettingsApi::Filter::HostInputFilter filter(
      std::make_shared<Orbi::Core::EchoProvider>(), {scoped});
  for (const auto& [method, input, refused] : cases) {
    const auto result = Call(filter, method, input, nullptr);
    std::vector<std::string> lines;
    if (method == scoped) lines.push_back(checking);
    if (refused) {
      lines.push_back("2 Host parameter value is:" + std::string(refused->c_str()) +
                      ". It should be:localhost");
      EXPECT_EQ(result.error,
                LifeCycle::ApiError(Com::Tessel::Orbi::Std::Errors::InvalidArgument,
                                    "com.tessel.ryx.host.invalid", {*refused, "localhost"}));
    } else {
      EXPECT_EQ(result.output, input);
    }
    EXPECT_EQ(log.TakeLines(), lines);
  }
}

}  // namespace
