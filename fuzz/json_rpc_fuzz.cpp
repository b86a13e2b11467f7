// The whole way of a request's bytes: decoding, the context update with headers taken from the same
// bytes, and an answer that echoes its identifier and input.

#include <algorithm>
#include <variant>
#include <vector>

#include "fuzz/target.h"
#include "orbi/json_rpc/request.h"
#include "orbi/json_rpc/response.h"
#include "orbi/json_rpc/update_execution_ctx.h"

using namespace Orbi;
using namespace Orbi::Protocol::Json;
using Transport::PicoHttp::HeaderField;

namespace {

constexpr std::string_view kHeaderNames[] = {"accept-language", "orbi-ctx-format-locale",
                                             "orbi-ctx-opid", "orbi-ctx-timezone", "orbi-service"};

void Update(ApiCall& call, std::string_view lines) {
  std::vector<HeaderField> headers;
  for (const std::string_view name : kHeaderNames) {
    const std::size_t end = std::min(lines.find('\n'), lines.size());
    if (end > 0) headers.push_back({name, lines.substr(0, end)});
    lines.remove_prefix(std::min(end + 1, lines.size()));
  }
  std::vector<boost::system::error_code> passedOver;
  (void)Provider::JsonRpc1_1::UpdateExecutionCtxHelper::Update(
      headers, call.method, *call.context, *L10n::LocalizerHelpers::GetDefaultLocalizer(),
      passedOver);
}

}  // namespace

/// Input: header values, one to a line, up to an empty line; then the body.
void Check(const std::string& input) {
  const std::size_t end = std::min(input.find("\n\n"), input.size());
  std::string body = input.substr(std::min(end + 2, input.size()));

  ApiRequest request = JsonApiRequestDeserializer().Deserialize(body);
  Require(body.empty());
  std::string answer;
  if (const auto* error = std::get_if<ProtocolError>(&request.content)) {
    answer = ApiResponseSerializer::Serialize(request.id, *error);
  } else {
    auto& call = std::get<ApiCall>(request.content);
    Update(call, std::string_view(input).substr(0, end));
    auto result = Core::MethodResult::Output(std::move(call.input));
    (void)JsonApiDirectResponseSerializer().Serialize(request.id, result);
    answer = JsonApiResponseSerializer().Serialize(request.id, std::move(result));
  }
  // An answer is itself a document that a strict reader takes.
  Data::ErrorValue unused;
  Require(JsonDataDeserializer().Deserialize(answer, unused).has_value());
}
