#include "transport/errors.h"

#include "tesselibs/listed_category.h"

namespace {

constexpr const char* kAsioMessages[] = {"Buffer max len error"};
constexpr const char* kHttpMessages[] = {"frame parse error", "message too long", "end of body"};
constexpr const char* kPicoHttpMessages[] = {
    "headers parse error", "chunk parse error", "http protocol error",   "server failed to listen",
    "invalid request",     "incomplete body",   "http headers too long",
};

}  // namespace

const boost::system::error_category& Orbi::Asio::AsioCategory() {
  static const ListedCategory category("orbi.asio", kAsioMessages, "asio error");
  return category;
}

const boost::system::error_category& Orbi::Transport::Http::HttpCategory() {
  static const ListedCategory category("orbi.transport.http", kHttpMessages, "transport error");
  return category;
}

const boost::system::error_category& Orbi::Transport::PicoHttp::PicoHttpCategory() {
  static const ListedCategory category("orbi.transport.picohttp", kPicoHttpMessages,
                                       "transport error");
  return category;
}
