#include "transport/errors.h"

#include <span>
#include <string>

namespace {

/// A category whose codes 1, 2, 3, ... have the messages of a list.
class ListedCategory : public boost::system::error_category {
 public:
  constexpr ListedCategory(const char* name, std::span<const char* const> messages,
                           const char* other)
      : name_(name), messages_(messages), other_(other) {}

  const char* name() const noexcept override { return name_; }
  std::string message(int code) const override {
    if (code < 1 || static_cast<std::size_t>(code) > messages_.size()) return other_;
    return messages_[code - 1];
  }

 private:
  const char* name_;
  std::span<const char* const> messages_;
  const char* other_;
};

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
