#pragma once

#include <boost/system/error_code.hpp>

/// The error categories of the transport. Their messages are part of the interface: clients read
/// them in the body of a 400 answer, operators in the log.

namespace Orbi::Asio {

enum class StreamError { kBufferMaxLength = 1 };

const boost::system::error_category& AsioCategory();

inline boost::system::error_code make_error_code(StreamError error) {
  return {static_cast<int>(error), AsioCategory()};
}

}  // namespace Orbi::Asio

namespace Orbi::Transport::Http {

/// What any HTTP transport can run into.
enum class HttpError { kFrameParse = 1, kMessageTooLong = 2, kEndOfBody = 3 };

const boost::system::error_category& HttpCategory();

inline boost::system::error_code make_error_code(HttpError error) {
  return {static_cast<int>(error), HttpCategory()};
}

}  // namespace Orbi::Transport::Http

namespace Orbi::Transport::PicoHttp {

/// What this server's own layers run into.
enum class PicoHttpError {
  kHeadersParse = 1,
  kChunkParse = 2,
  kProtocol = 3,
  kFailedToListen = 4,
  kInvalidRequest = 5,
  kIncompleteBody = 6,
  kHeadersTooLong = 7,
};

const boost::system::error_category& PicoHttpCategory();

inline boost::system::error_code make_error_code(PicoHttpError error) {
  return {static_cast<int>(error), PicoHttpCategory()};
}

}  // namespace Orbi::Transport::PicoHttp

template <>
struct boost::system::is_error_code_enum<Orbi::Asio::StreamError> : std::true_type {};
template <>
struct boost::system::is_error_code_enum<Orbi::Transport::Http::HttpError> : std::true_type {};
template <>
struct boost::system::is_error_code_enum<Orbi::Transport::PicoHttp::PicoHttpError>
    : std::true_type {};
