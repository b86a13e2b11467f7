#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "orbi/json_rpc/request.h"
#include "orbi/json_rpc/response.h"
#include "orbi/json_rpc/update_execution_ctx.h"
#include "orbi/l10n/errors.h"
#include "orbi/std/errors.h"

namespace Orbi::Protocol::Json {
namespace {

using Data::Value;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;
using Transport::PicoHttp::HeaderField;

ApiRequest Deserialize(std::string body) { return JsonApiRequestDeserializer().Deserialize(body); }

std::string IdText(const RequestId& id) {
  if (const auto* text = std::get_if<std::string>(&id)) return '"' + *text + '"';
  if (const auto* number = std::get_if<std::int64_t>(&id)) return std::to_string(*number);
  return "null";
}

TEST(RequestDeserializer, ReadsACall) {
  // Inside what is ignored a number may be anything that is grammatical and not too large for the
  // parser.
  std::string body =
      R"({"jsonrpc": "2.0", "id": "1", "method": "invoke", "extra": [{"a": 1, "a": 2}], "params": {
      "serviceId": "com.tessel.cis.tasks", "operationId": "get", "extra": 99999999999999999999,
      "ctx": {"appCtx": {"opId": "8f"},
              "securityCtx": {"schemeId": "s", "userName": "root", "password": "secret", "x": 1}},
      "input": {"STRUCTURE": {"operation-input": {"task": "0b7e"}}}}})";
  const ApiRequest request = JsonApiRequestDeserializer().Deserialize(body);
  EXPECT_THAT(body, IsEmpty());
  EXPECT_EQ(IdText(request.id), "\"1\"");
  ASSERT_TRUE(std::holds_alternative<ApiCall>(request.content));
  const ApiCall& call = std::get<ApiCall>(request.content);
  EXPECT_EQ(call.method.ToText(), "com.tessel.cis.tasks.get");
  EXPECT_EQ(call.input, Value(Data::Structure{"operation-input", {}}.Add("task", "0b7e")));
  EXPECT_THAT(call.context->application, ElementsAre(Pair("opId", "8f")));
  ASSERT_TRUE(call.context->security);
  EXPECT_EQ(call.context->security->schemeId, "s");
  EXPECT_EQ(call.context->security->userName, "root");
  EXPECT_EQ(call.context->security->password, "secret");
}

TEST(RequestDeserializer, WhatMayBeAbsentMayBeNull) {
  for (const char* ctx :
       {"", R"("ctx": null,)", R"("ctx": {"appCtx": null, "securityCtx": null},)"}) {
    const ApiRequest request = Deserialize(
        std::string(R"({"params": {)") + ctx +
        R"("operationId": "o", "serviceId": "s"}, "method": "invoke", "jsonrpc": "2.0"})");
    EXPECT_EQ(IdText(request.id), "null");
    ASSERT_TRUE(std::holds_alternative<ApiCall>(request.content)) << ctx;
    const ApiCall& call = std::get<ApiCall>(request.content);
    EXPECT_FALSE(call.context->security);
    EXPECT_EQ(call.input, Value(Data::Structure{"operation-input", {}}));
  }
}

TEST(RequestDeserializer, PasswordIsGoneFromTheBody) {
  std::string body = R"({"params": {"ctx": {"securityCtx": {"password": "geheimnis"}}}})";
  const char* const bytes = body.data();
  const std::size_t size = body.size();
  (void)JsonApiRequestDeserializer().Deserialize(body);
  ASSERT_EQ(body.data(), bytes);
  // What the string's memory holds behind its end.
  EXPECT_THAT(std::string(bytes + 1, size - 1), Not(HasSubstr("geheimnis")));
}

TEST(RequestDeserializer, TellsWhatIsWrongAndEchoesTheId) {
  const std::string call = R"("jsonrpc": "2.0", "method": "invoke", )";
  const std::string names = R"("serviceId": "s", "operationId": "o")";
  const auto params = [&](const std::string& members) {
    return "{" + call + R"("params": {)" + names + ", " + members + R"(}, "id": 7})";
  };
  const auto nested = [&](std::size_t levels) {
    return params("\"input\": " + std::string(levels, '[') + std::string(levels, ']'));
  };
  const auto entries = [&](int count) {
    std::string all;
    for (int i = 0; i < count; ++i) all += (i ? ", \"" : "\"") + std::to_string(i) + R"(": "x")";
    return params(R"("ctx": {"appCtx": {)" + all + "}}");
  };
  const auto values = [&](int count) {
    std::string all = "[]";
    for (int i = 1; i < count; ++i) all += ",[]";
    return params(R"("input": [)" + all + "]");
  };
  const struct {
    std::string body;
    const char* id;
    int code;
    const char* message;
  } cases[] = {
      {"", "null", -32700, "empty"},
      {"{\"id\": 7, \"method\" \"invoke\"}", "7", -32700, "Missing a colon"},
      {"{\"id\": 7} {}", "7", -32700, "must not be followed"},
      {"{\"id\": \"\xFF\"}", "null", -32700, "Invalid encoding"},
      {nested(99), "null", -32700, "Nesting deeper than 100 levels."},
      {"7", "null", -32600, "not an object"},
      {"[" + params("\"x\": 1") + "]", "null", -32600, "a batch"},
      {R"({"id": 7, "method": "invoke", "params": {}})", "7", -32600, "jsonrpc"},
      {R"({"id": 7, "jsonrpc": "1.1", "method": "invoke", "params": {}})", "7", -32600, "jsonrpc"},
      {R"({"id": 7, "jsonrpc": 2.0, "method": "invoke", "params": {}})", "7", -32600, "jsonrpc"},
      {R"({"id": 7, "jsonrpc": "2.0", "params": {}})", "7", -32600, "method is missing"},
      {R"({"id": 7, "jsonrpc": "2.0", "method": {}, "params": {}})", "7", -32600, "method"},
      {R"({"id": 7, "jsonrpc": "2.0", "method": "invoke"})", "7", -32600, "params is missing"},
      {R"({"id": 7, "jsonrpc": "2.0", "method": "invoke", "params": []})", "7", -32600, "params"},
      {R"({"id": {}, )" + call + R"("params": {)" + names + "}}", "null", -32600, "id"},
      {R"({"id": 7, "id": 7, )" + call + R"("params": {)" + names + "}}", "7", -32600, "twice"},
      {R"({"jsonrpc": "2.0", "method": "run", "params": {"serviceId": 1}, "id": "x"})", "\"x\"",
       -32601, "invoke"},
      {"{" + call + R"("params": {"operationId": "o"}, "id": 7})", "7", -32602, "serviceId"},
      {"{" + call + R"("params": {"serviceId": "o"}, "id": 7})", "7", -32602, "operationId"},
      {params(R"("serviceId": "t")"), "7", -32602, "twice"},
      {params(R"("input": {"STRUCTURE": {"n": {"a": 1, "a": 2}}})"), "7", -32602, "twice"},
      {params(R"("input": {"SECRET": []})"), "7", -32602, "secret"},
      {params(R"("input": [{"a": 99999999999999999999, "b": [{}]}])"), "7", -32602, "out of range"},
      {params(R"("ctx": [1, {}])"), "7", -32602, "ctx is not an object"},
      {params(R"("ctx": {"appCtx": {"opId": 1}})"), "7", -32602, "appCtx"},
      {params(R"("ctx": {"appCtx": {"a": "1", "a": "2"}})"), "7", -32602, "twice"},
      {entries(65), "7", -32602, "appCtx has more than 64 entries"},
      {values(50'000), "7", -32602, "input: has more than 100000 parts"},
      {params(R"("ctx": {"securityCtx": {"password": null}})"), "7", -32602, "password"},
      {params(R"("ctx": {"securityCtx": "x"})"), "7", -32602, "securityCtx"},
  };
  for (const auto& c : cases) {
    const ApiRequest request = Deserialize(c.body);
    ASSERT_TRUE(std::holds_alternative<ProtocolError>(request.content)) << c.body;
    const auto& error = std::get<ProtocolError>(request.content);
    EXPECT_EQ(static_cast<int>(error.code), c.code) << c.body << error.message;
    EXPECT_THAT(error.message, AllOf(StartsWith("protocol error"), HasSubstr(c.message)));
    EXPECT_EQ(IdText(request.id), c.id) << c.body;
  }
  for (const auto& good : {nested(98), entries(64)})
    EXPECT_TRUE(std::holds_alternative<ApiCall>(Deserialize(good).content));
}

TEST(ResponseSerializer, WritesResultsAndErrorsInBothForms) {
  const Value output = Data::Structure{"info", {}}.Add("password", Data::Secret{"x"});
  const Data::ErrorValue error{"not_found", {{"data", Data::Optional{}}}};
  const struct {
    RequestId id;
    Core::MethodResult result;
    const char *plain, *clean;
  } cases[] = {
      {"a\"b", Core::MethodResult::Output(output),
       R"("a\"b","result":{"output":{"STRUCTURE":{"info":{"password":{"SECRET":""}}}}}})",
       R"("a\"b","result":{"output":{"password":""}}})"},
      {std::int64_t{-5}, Core::MethodResult::Error(error),
       R"(-5,"result":{"error":{"ERROR":{"not_found":{"data":{"OPTIONAL":null}}}}}})",
       R"(-5,"result":{"error":{"not_found":{}}}})"},
  };
  const std::string start = R"({"jsonrpc":"2.0","id":)";
  for (const auto& c : cases) {
    EXPECT_EQ(JsonApiResponseSerializer().Serialize(c.id, c.result), start + c.plain);
    EXPECT_EQ(JsonApiDirectResponseSerializer().Serialize(c.id, c.result), start + c.clean);
  }
  EXPECT_EQ(
      ApiResponseSerializer::Serialize("7", ProtocolError{ProtocolErrorCode::kNotJson, "\"x\""}),
      start + R"("7","error":{"code":-32700,"message":"\"x\""}})");
}

using Provider::JsonRpc1_1::UpdateExecutionCtxHelper;

TEST(UpdateExecutionCtx, HeadersCompleteTheContext) {
  const HeaderField headers[] = {
      {":method", "POST"},         {"accept-language", "de-DE, en;q=0.5"},
      {"orbi-ctx-opid", "header"}, {"orbi-ctx-timezone", "Europe/Berlin"},
      {"orbi-ctx-trace", "t"},     {"orbi-operation", "get"},
      {"orbi-service", "tasks"},
  };
  const auto bundle = std::make_shared<L10n::LocalizationBundle>();
  bundle->AddLocale("de", {});
  const L10n::Localizer localizer("en_US", {bundle});
  std::vector<boost::system::error_code> passedOver;
  Core::ExecutionContext context;
  EXPECT_FALSE(
      UpdateExecutionCtxHelper::Update(headers, {"tasks", "get"}, context, localizer, passedOver));
  EXPECT_THAT(passedOver, testing::IsEmpty());
  EXPECT_THAT(context.application, UnorderedElementsAre(Pair("opId", "header"), Pair("trace", "t"),
                                                        Pair("timezone", "Europe/Berlin")));
  EXPECT_EQ(context.localization.language, "de_DE");
  EXPECT_EQ(context.localization.timeZone, "Europe/Berlin");

  Core::ExecutionContext withEntry;
  withEntry.application = {{"opId", "payload"}, {"timezone", "Etc/GMT+2"}, {"TRACE", "payload"}};
  while (withEntry.application.size() < 64)
    withEntry.application[std::to_string(withEntry.application.size())];
  EXPECT_FALSE(UpdateExecutionCtxHelper::Update(headers, {"tasks", "get"}, withEntry, localizer,
                                                passedOver));
  EXPECT_EQ(withEntry.application["opId"], "payload");
  EXPECT_EQ(withEntry.localization.timeZone, "Etc/GMT+2");
  withEntry.application.erase("TRACE");
  withEntry.application["64"];
  const auto tooMany =
      UpdateExecutionCtxHelper::Update(headers, {"tasks", "get"}, withEntry, localizer, passedOver);
  ASSERT_TRUE(tooMany);
  EXPECT_THAT(tooMany->message, HasSubstr("more than 64 entries"));

  for (const Core::MethodIdentifier& method :
       {Core::MethodIdentifier{"tasks", "list"}, {"depots", "get"}}) {
    const auto error =
        UpdateExecutionCtxHelper::Update(headers, method, context, localizer, passedOver);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, ProtocolErrorCode::kInvalidParams);
    EXPECT_EQ(error->message, "Mismatching operation identifier in HTTP header and payload");
  }
}

TEST(UpdateExecutionCtx, BadLocalisationHeadersLeaveTheDefaults) {
  using L10n::LocalizationError;
  const struct {
    const char* language;
    const char* formatLocale;
    std::vector<boost::system::error_code> passedOver;
  } cases[] = {
      {"d e", "%s", {LocalizationError::kIncorrectHeader, LocalizationError::kIncorrectHeader}},
      {"fr",
       "fr_FR",
       {LocalizationError::kLocaleNotSupported, LocalizationError::kFormatLocaleNotSupported}},
      {"en", "C", {}},
  };
  for (const auto& c : cases) {
    const HeaderField headers[] = {{"accept-language", c.language},
                                   {"orbi-ctx-format-locale", c.formatLocale},
                                   {"orbi-ctx-timezone", "../etc/passwd\x01"}};
    Core::ExecutionContext context;
    std::vector<boost::system::error_code> passedOver;
    EXPECT_FALSE(UpdateExecutionCtxHelper::Update(
        headers, {"s", "o"}, context, *L10n::LocalizerHelpers::GetDefaultLocalizer(), passedOver));
    EXPECT_EQ(passedOver, c.passedOver) << c.language;
    EXPECT_EQ(context.localization.language, c.passedOver.empty() ? "en" : "en_US");
    EXPECT_EQ(context.localization.formatLocale, "C");
    EXPECT_EQ(context.localization.timeZone, "Etc/UTC");
  }
}

}  // namespace
}  // namespace Orbi::Protocol::Json
