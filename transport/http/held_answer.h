#pragma once

#include <functional>
#include <string>

#include <boost/system/error_code.hpp>

#include "transport/http/request_head.h"
#include "transport/http/response.h"

namespace Orbi::Transport::PicoHttp {

/// The answer to a GET whose announced body is not read, while it waits for what follows.
///
/// What follows is the next request here, and a body to a proxy, which believes that it is owed one
/// answer and gives the connection to another client as soon as it has that. A second answer, or
/// what the other client sends then, would be taken for something else by one side or the other. So
/// this answer leaves in one write with the one to what follows, which no proxy takes for a
/// connection that can be used again, or as the connection's last.
class HeldAnswer {
 public:
  HeldAnswer(Response response, const RequestHead& head);

  /// What goes out before the next answer. Leaves nothing of the body.
  [[nodiscard]] std::string Bytes();
  /// The answer, telling the client that the connection ends with it.
  [[nodiscard]] Response AsLast();
  /// What the writing of it must know of its request.
  [[nodiscard]] const RequestHead& Head() const { return head_; }

  /// Whom to tell how the sending ends.
  std::function<void(const boost::system::error_code&)> sent;

 private:
  Response response_;
  RequestHead head_;
};

}  // namespace Orbi::Transport::PicoHttp
