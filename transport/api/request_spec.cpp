#include "transport/api/request_spec.h"

#include <algorithm>
#include <string_view>

#include "tesselibs/ascii.h"

namespace Orbi::Transport::PicoHttp {
namespace {

/// What can be asked for, the first that is asked for wins. The framed types cannot be had.
constexpr MediaType kByPreference[] = {kCleanStream, kPlainStream, kCleanJson};

/// The methods that the API knows, in any case of letters, as the transport reads them. Whatever
/// else a request begins with is none: an unknown word must not be executed as a call.
struct Method {
  std::string_view name;
  bool bodyCounts;  ///< the others carry no call, even when they bring chunks
};
constexpr Method kMethods[] = {
    {"POST", true}, {"DELETE", true}, {"GET", false}, {"HEAD", false}, {"OPTIONS", false}};

const Method* FindMethod(std::string_view name) {
  const auto* const found = std::ranges::find_if(kMethods, [name](const Method& method) {
    return Ascii::EqualsIgnoringCase(name, method.name);
  });
  return found == std::end(kMethods) ? nullptr : found;
}

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
  bool namesJson = true;
  for (const HeaderField& header : head.headers) {
    if (header.name == "accept") {
      accepted |= FindMediaTypes(header.value);
      if (header.value.find(".stream.json") != std::string_view::npos) spec.streamResponse = true;
    } else if (header.name == "content-type") {
      content |= FindMediaTypes(header.value);
      namesJson &= (FindMediaTypes(TypeOf(header.value)) & kPlainJson) != 0;
    }
  }
  spec.responseFormat = FormatFor(accepted);
  spec.serializer = FormOf(spec.responseFormat) == Protocol::Json::Form::kClean
                        ? static_cast<const Protocol::Json::ApiResponseSerializer*>(&clean)
                        : &plain;
  const Method* const method = FindMethod(head.method);
  if (method != nullptr && content == kPlainJson && namesJson) {
    spec.deserializer = &deserializer;
    spec.bodyCounts = method->bodyCounts;
  }
  spec.keepAlive = head.keepAlive;
  return spec;
}

}  // namespace Orbi::Transport::PicoHttp
