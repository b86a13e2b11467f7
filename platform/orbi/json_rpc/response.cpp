#include "orbi/json_rpc/response.h"

#include <algorithm>
#include <utility>

namespace Orbi::Protocol::Json {
namespace {

/// Of the answer's text before its value, and of a short answer.
constexpr std::size_t kUsualEnvelope = 96;
constexpr std::size_t kUsualAnswer = 512;

std::string EnvelopeStart(const RequestId& id) {
  std::string text;
  text.reserve(kUsualEnvelope);
  text += R"({"jsonrpc":"2.0","id":)";
  if (const auto* words = std::get_if<std::string>(&id)) {
    AppendJsonString(*words, text);
  } else if (const auto* number = std::get_if<std::int64_t>(&id)) {
    text += std::to_string(*number);
  } else {
    text += "null";
  }
  return text;
}

Data::Value ValueOf(Core::MethodResult result) {
  if (result.error) return std::move(*result.error);
  return std::move(result.output).value();
}

constexpr std::string_view kTail = "}}";

}  // namespace

ResponseText::ResponseText(const RequestId& id, Core::MethodResult result, Form form)
    : value_(ValueOf(std::move(result))),
      head_(EnvelopeStart(id)),
      writer_(value_, form, Secrets::kBlanked) {
  head_ += value_.As<Data::ErrorValue>() ? R"(,"result":{"error":)" : R"(,"result":{"output":)";
}

bool ResponseText::Write(std::string& out, std::size_t limit) {
  if (headWritten_ < head_.size()) {
    const std::size_t room = limit - std::min(limit, out.size());
    const std::size_t count = std::min(room, head_.size() - headWritten_);
    out.append(head_, headWritten_, count);
    headWritten_ += count;
    if (headWritten_ < head_.size()) return true;
  }
  if (tailPending_) {
    if (writer_.Write(out, limit)) return true;
    if (out.size() > limit - kTail.size()) return true;
    out += kTail;
    tailPending_ = false;
  }
  return false;
}

std::string ApiResponseSerializer::Serialize(const RequestId& id, Core::MethodResult result) const {
  std::string text;
  text.reserve(kUsualAnswer);
  ResponseText(id, std::move(result), form_).Write(text);
  return text;
}

std::unique_ptr<ResponseText> ApiResponseSerializer::Start(const RequestId& id,
                                                           Core::MethodResult result) const {
  return std::make_unique<ResponseText>(id, std::move(result), form_);
}

std::string ApiResponseSerializer::Serialize(const RequestId& id, const ProtocolError& error) {
  std::string text = EnvelopeStart(id);
  text += R"(,"error":{"code":)" + std::to_string(static_cast<int>(error.code)) + R"(,"message":)";
  AppendJsonString(error.message, text);
  return text += kTail;
}

}  // namespace Orbi::Protocol::Json
