#pragma once

#include <cstdint>
#include <string>
#include <variant>

#include "orbi/core/execution_context.h"
#include "orbi/core/provider.h"
#include "orbi/data/value.h"
#include "orbi/json/parse.h"

namespace Orbi::Protocol::Json {

/// What a client calls its request by; comes back with the answer.
using RequestId = std::variant<Null, std::int64_t, std::string>;

/// Codes of JSON-RPC 2.0, section 5.1.
enum class ProtocolErrorCode : int {
  kNotJson = -32700,
  kInvalidRequest = -32600,
  kUnknownMethod = -32601,
  kInvalidParams = -32602,
};

/// Why a request is no call. The message never quotes what the client sent but for the names of
/// members.
struct ProtocolError {
  ProtocolErrorCode code;
  std::string message;
};

struct ApiCall {
  Core::MethodIdentifier method;
  Data::Value input;
  Core::ExecutionContextPtr context;
};

struct ApiRequest {
  RequestId id;  ///< null when the request has none or none that could be read
  std::variant<ApiCall, ProtocolError> content;
};

/// Reads requests whose input is plain JSON. Holds no state between calls.
class JsonApiRequestDeserializer {
 public:
  /// @param body  overwritten before this returns, since it may hold a password: the only copy is
  ///              then the one in the call's security context
  [[nodiscard]] ApiRequest Deserialize(std::string& body) const;
};

}  // namespace Orbi::Protocol::Json
