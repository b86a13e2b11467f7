#include "transport/http/response_writer.h"

#include <charconv>
#include <exception>
#include <stdexcept>

#include "tesselibs/ascii.h"

namespace Orbi::Transport::PicoHttp {
namespace {

std::string ToHex(std::size_t number) {
  std::array<char, 16> digits;
  return {digits.data(), std::to_chars(digits.begin(), digits.end(), number, 16).ptr};
}

bool IsPseudo(const ResponseHeader& header) { return header.name.starts_with(':'); }

}  // namespace

ResponseWriter::ResponseWriter(Response response, const RequestHead& head, std::string earlier)
    : response_(std::move(response)), framing_(std::move(earlier)) {
  status_ = Required(":status") + ' ' + Required(":reason");
  WriteHead(head);
  headLength_ = framing_.size();
  if (Ascii::EqualsIgnoringCase(head.method, "head")) response_.body = std::string();
}

const std::string& ResponseWriter::Required(std::string_view name) const {
  const auto found = std::ranges::find(response_.headers, name, &ResponseHeader::name);
  if (found == response_.headers.end())
    throw std::invalid_argument("response without " + std::string(name));
  return found->value;
}

void ResponseWriter::WriteHead(const RequestHead& head) {
  framing_.reserve(framing_.size() + 256);
  framing_.append("HTTP/1.1 ").append(status_).append("\r\n");
  if (const auto* body = std::get_if<std::string>(&response_.body)) {
    // The method's spelling is the protocol's own: clients rely on every sized answer having its
    // length.
    const bool unsized = body->empty() && status_.starts_with('1') &&
                         Ascii::EqualsIgnoringCase(head.method, "connnect");
    if (!unsized)
      framing_.append("Content-Length: ").append(std::to_string(body->size())).append("\r\n");
  } else if (head.minorVersion >= 1) {
    chunked_ = true;
    framing_.append("Transfer-Encoding: chunked\r\n");
  } else {
    keepsConnection_ = false;
  }
  for (const auto& header : response_.headers) {
    if (IsPseudo(header)) continue;
    framing_.append(header.name).append(": ").append(header.value).append("\r\n");
    if (Ascii::EqualsIgnoringCase(header.name, "connection") &&
        Ascii::ContainsIgnoringCase(header.value, "close"))
      keepsConnection_ = false;
  }
  framing_.append("Server: Orbi-PicoHttp\r\n\r\n");
}

ResponseWriter::Buffers ResponseWriter::Next() {
  if (std::exchange(headTaken_, true)) framing_.clear();
  if (done_) return {};
  auto* const source = std::get_if<std::unique_ptr<BodySource>>(&response_.body);
  if (source == nullptr) {
    done_ = true;
    return {boost::asio::buffer(framing_),
            boost::asio::buffer(std::get<std::string>(response_.body))};
  }
  const auto chunk = NextChunk(**source);
  if (chunk.empty()) {
    done_ = true;
    if (chunked_ && failure_.empty()) framing_.append("0\r\n\r\n");
    return {boost::asio::buffer(framing_)};
  }
  if (!chunked_) return {boost::asio::buffer(framing_), boost::asio::buffer(chunk)};
  framing_.append(ToHex(chunk.size())).append("\r\n");
  return {boost::asio::buffer(framing_), boost::asio::buffer(chunk),
          boost::asio::buffer("\r\n", 2)};
}

std::string_view ResponseWriter::NextChunk(BodySource& source) {
  if (pieceSent_ == piece_.size()) {
    pieceSent_ = 0;
    piece_.clear();
    try {
      source.Next(piece_);
    } catch (const std::exception& error) {
      failure_ = error.what();
      return {};
    }
  }
  const auto chunk = std::string_view(piece_).substr(pieceSent_, kMaxChunkSize);
  pieceSent_ += chunk.size();
  return chunk;
}

}  // namespace Orbi::Transport::PicoHttp
