#include "transport/api/request_spec.h"

#include <string_view>

namespace Orbi::Transport::PicoHttp {
namespace {

/// What can be asked for, the first that is asked for wins. The framed types cannot be had.
constexpr MediaType kByPreference[] = {kCleanStream, kPlainStream, kCleanJson};

MediaType FormatFor(unsigned accepted) {
  for (const MediaType type : kByPreference) {
    if (accepted & type) return type;
  }
  return kPlainJson;
}

}  // namespace

RequestSpec ExtractRequestSpec(const RequestHead& head) {
  static const Protocol::Json::JsonApiResponseSerializer plain;
  static const Protocol::Json::JsonApiDirectResponseSerializer clean;
  static const Protocol::Json::JsonApiRequestDeserializer deserializer;

  RequestSpec spec;
  unsigned accepted = 0;
  unsigned content = 0;
  for (const HeaderField& header : head.headers) {
    if (header.name == "accept") {
      accepted |= FindMediaTypes(header.value);
      if (header.value.find(".stream.json") != std::string_view::npos) spec.streamResponse = true;
    } else if (header.name == "content-type") {
      content |= FindMediaTypes(header.value);
    }
  }
  spec.responseFormat = FormatFor(accepted);
  spec.serializer = FormOf(spec.responseFormat) == Protocol::Json::Form::kClean
                        ? static_cast<const Protocol::Json::ApiResponseSerializer*>(&clean)
                        : &plain;
  if (content == kPlainJson) spec.deserializer = &deserializer;
  spec.keepAlive = head.keepAlive;
  return spec;
}

}  // namespace Orbi::Transport::PicoHttp
