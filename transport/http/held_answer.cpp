#include "transport/http/held_answer.h"

#include <utility>

#include "tesselibs/ascii.h"
#include "transport/http/response_writer.h"

namespace Orbi::Transport::PicoHttp {

HeldAnswer::HeldAnswer(Response response, const RequestHead& head)
    : sent(std::exchange(response.sent, nullptr)), response_(std::move(response)) {
  head_.method = "GET";  // a view into the head buffer would not outlive the next read
  head_.minorVersion = head.minorVersion;
}

std::string HeldAnswer::Bytes() {
  ResponseWriter writer(std::move(response_), head_);
  std::string bytes;
  for (auto portion = writer.Next(); boost::asio::buffer_size(portion) != 0;
       portion = writer.Next())
    for (const auto& part : portion)
      bytes.append(static_cast<const char*>(part.data()), part.size());
  return bytes;
}

Response HeldAnswer::AsLast() {
  for (auto& [name, value] : response_.headers)
    if (Ascii::EqualsIgnoringCase(name, "connection")) value = "close";
  return std::move(response_);
}

}  // namespace Orbi::Transport::PicoHttp
