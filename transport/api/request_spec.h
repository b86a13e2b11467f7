#pragma once

#include "orbi/json_rpc/request.h"
#include "orbi/json_rpc/response.h"
#include "transport/api/media_type.h"
#include "transport/http/request_head.h"

namespace Orbi::Transport::PicoHttp {

/// What a request's head says about how it is to be read and answered.
struct RequestSpec {
  MediaType responseFormat = kPlainJson;
  const Protocol::Json::ApiResponseSerializer* serializer = nullptr;
  /// Empty unless the body is announced as plain JSON, with a method that the API knows.
  const Protocol::Json::JsonApiRequestDeserializer* deserializer = nullptr;
  bool bodyCounts = true;  ///< the method is one whose body is the call
  bool streamResponse = false;
  bool keepAlive = true;
};

[[nodiscard]] RequestSpec ExtractRequestSpec(const RequestHead& head);

}  // namespace Orbi::Transport::PicoHttp
