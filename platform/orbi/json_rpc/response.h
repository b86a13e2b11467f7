#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <string>

#include "orbi/core/provider.h"
#include "orbi/json/writer.h"
#include "orbi/json_rpc/request.h"

namespace Orbi::Protocol::Json {

/// The text of one answer, produced whole or in pieces. Owns what it writes.
class ResponseText {
 public:
  /// @param result  one of its two values must be there
  ResponseText(const RequestId& id, Core::MethodResult result, Form form);
  ResponseText(const ResponseText&) = delete;
  ResponseText& operator=(const ResponseText&) = delete;

  /// As JsonWriter::Write.
  bool Write(std::string& out, std::size_t limit = std::numeric_limits<std::size_t>::max());

 private:
  const Data::Value value_;
  std::string head_;
  std::size_t headWritten_ = 0;
  JsonWriter writer_;
  bool tailPending_ = true;
};

/// Writes the results of calls as answers in one form, secrets blanked. Holds no state between
/// calls.
class ApiResponseSerializer {
 public:
  explicit ApiResponseSerializer(Form form) : form_(form) {}

  /// @throws JsonSerializationError
  [[nodiscard]] std::string Serialize(const RequestId& id, Core::MethodResult result) const;

  /// The same text, to be taken piece by piece.
  [[nodiscard]] std::unique_ptr<ResponseText> Start(const RequestId& id,
                                                    Core::MethodResult result) const;

  /// The answer to a request that is no call; alike in all forms.
  [[nodiscard]] static std::string Serialize(const RequestId& id, const ProtocolError& error);

 private:
  Form form_;
};

class JsonApiResponseSerializer : public ApiResponseSerializer {
 public:
  JsonApiResponseSerializer() : ApiResponseSerializer(Form::kPlain) {}
};

class JsonApiDirectResponseSerializer : public ApiResponseSerializer {
 public:
  JsonApiDirectResponseSerializer() : ApiResponseSerializer(Form::kClean) {}
};

}  // namespace Orbi::Protocol::Json
