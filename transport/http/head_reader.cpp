#include "transport/http/head_reader.h"

#include <charconv>
#include <utility>

#include "tesselibs/ascii.h"
#include "transport/errors.h"

namespace Orbi::Transport::PicoHttp {
namespace {

bool AllOf(std::string_view text, std::string_view allowed) {
  return text.find_first_not_of(allowed) == text.npos;
}

/// uri-host [":" port] (RFC 9110, section 7.2), without the comma that RFC 3986 lets a name have:
/// whoever joins two Host lines by one makes it look like a name.
bool IsHost(std::string_view value) {
  static constexpr std::string_view kDigits = "0123456789";
  static constexpr std::string_view kAddress = "0123456789abcdefABCDEF:.";
  static constexpr std::string_view kName =
      "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-._~%!$&'()*+;=";
  const bool bracketed = value.starts_with('[');
  const auto end = bracketed ? value.find(']') : value.find(':');
  if (bracketed && (end == value.npos || !AllOf(value.substr(1, end - 1), kAddress))) return false;
  if (!bracketed && !AllOf(value.substr(0, end), kName)) return false;
  if (end == value.npos) return true;
  const auto port = value.substr(bracketed ? end + 1 : end);
  return port.empty() || (port.starts_with(':') && AllOf(port.substr(1), kDigits));
}

}  // namespace

/// The headers that the transport itself acts on. A header that comes more than once is visited
/// each time.
struct HeadReader::Visitor {
  std::string_view name;
  boost::system::error_code (*visit)(HeadReader&, std::string_view value);

  static const Visitor kAll[];
};

const HeadReader::Visitor HeadReader::Visitor::kAll[] = {
    {"connection",
     [](HeadReader& reader, std::string_view value) {
       if (Ascii::ContainsIgnoringCase(value, "keep-alive")) reader.asksToKeep_ = true;
       if (Ascii::ContainsIgnoringCase(value, "close")) reader.asksToClose_ = true;
       return boost::system::error_code();
     }},
    {"content-length",
     [](HeadReader& reader, std::string_view value) { return reader.VisitContentLength(value); }},
    {"content-type",
     [](HeadReader& reader, std::string_view value) {
       if (value.find(".stream.json") != value.npos || value.find(".framed") != value.npos)
         reader.head_.framed = true;
       return boost::system::error_code();
     }},
    {"expect",
     [](HeadReader& reader, std::string_view value) {
       if (Ascii::EqualsIgnoringCase(value, "100-continue"))
         reader.expectation_ = Expectation::kContinue;
       else if (reader.expectation_ == Expectation::kNone)
         reader.expectation_ = Expectation::kUnknown;
       return boost::system::error_code();
     }},
    {"host", [](HeadReader& reader, std::string_view value) { return reader.VisitHost(value); }},
    {"transfer-encoding",
     [](HeadReader& reader, std::string_view value) {
       return reader.VisitTransferEncoding(value);
     }},
};

bool HeadReader::Take(std::size_t count, boost::system::error_code& ec) {
  const auto parsedBefore = filled_;
  filled_ += count;
  const int length = PhrParse({buffer_.data(), filled_}, request_, parsedBefore);
  if (length == kPhrMalformed) {
    ec = PicoHttpError::kHeadersParse;
  } else if (length == kPhrIncomplete) {
    if (filled_ == kBufferSize) ec = PicoHttpError::kHeadersTooLong;
  } else {
    headLength_ = static_cast<std::size_t>(length);
    ec = VisitHeaders();
    return !ec;
  }
  return false;
}

boost::system::error_code HeadReader::VisitHeaders() {
  TolowerAndSortHeaders(buffer_, request_);
  head_.method = request_.method;
  head_.path = request_.path;
  head_.minorVersion = request_.minorVersion;
  for (const auto& field : request_.Headers()) {
    for (const auto& visitor : Visitor::kAll) {
      if (field.name != visitor.name) continue;
      if (const auto ec = visitor.visit(*this, field.value)) return ec;
    }
  }
  InsertHeader(request_, {":method", request_.method});
  head_.headers = request_.Headers();
  // Clients older than HTTP/1.1 keep a connection only when they say so (RFC 9112, section 9.3).
  head_.keepAlive = !asksToClose_ && (head_.minorVersion >= 1 || asksToKeep_);
  // And they do not know interim responses (RFC 9110, section 10.1.1).
  if (head_.minorVersion == 0) expectation_ = Expectation::kNone;

  return SettleFraming();
}

/// Where the end of the body is. When two readers of one connection may see it at different places,
/// a proxy and this server for instance, the request is refused or is the connection's last: what
/// follows could be somebody's way to smuggle a request in (RFC 9112, section 11.2).
boost::system::error_code HeadReader::SettleFraming() {
  if (coded_) {
    if (!framing_.chunked) return PicoHttpError::kInvalidRequest;
    // RFC 9112, section 6.1.
    if (framing_.hasContentLength || head_.minorVersion == 0) head_.keepAlive = false;
    framing_ = {.chunked = true};
  }
  ForceEmptyBody();
  return {};
}

/// RFC 9112, section 3.2. A request without any is taken: the same service answers for every name.
boost::system::error_code HeadReader::VisitHost(std::string_view value) {
  if (std::exchange(named_, true) || !IsHost(value)) return PicoHttpError::kInvalidRequest;
  return {};
}

/// One line of a list that may have several. A coding other than chunked is left to whoever reads
/// the body, as long as chunked is the last one and the only one of its name, without parameters:
/// anything else does not tell where the body ends (RFC 9112, sections 6.3 and 7.1). No registered
/// coding has a parameter that needs quotes, and a comma in quotes would be read in two ways.
boost::system::error_code HeadReader::VisitTransferEncoding(std::string_view value) {
  coded_ = true;
  if (value.find('"') != value.npos) return PicoHttpError::kInvalidRequest;
  for (bool more = true; more;) {
    const auto comma = value.find(',');
    const auto coding = Ascii::Trimmed(value.substr(0, comma));
    const auto name = Ascii::Trimmed(coding.substr(0, coding.find(';')));
    if (framing_.chunked || !IsToken(name)) return PicoHttpError::kInvalidRequest;
    // Names of codings ignore case (RFC 9112, section 7).
    framing_.chunked = Ascii::EqualsIgnoringCase(coding, "chunked");
    if (!framing_.chunked && Ascii::EqualsIgnoringCase(name, "chunked"))
      return PicoHttpError::kInvalidRequest;
    more = comma != value.npos;
    if (more) value.remove_prefix(comma + 1);
  }
  return {};
}

boost::system::error_code HeadReader::VisitContentLength(std::string_view value) {
  std::uint64_t length = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), length);
  if (error == std::errc::result_out_of_range) return Http::HttpError::kMessageTooLong;
  if (error != std::errc() || end != value.data() + value.size())
    return PicoHttpError::kInvalidRequest;
  // Two readers of one connection that disagree on where a request ends: a way to smuggle requests.
  if (framing_.hasContentLength && framing_.contentLength != length)
    return PicoHttpError::kInvalidRequest;
  framing_.hasContentLength = true;
  framing_.contentLength = length;
  return {};
}

void HeadReader::ForceEmptyBody() {
  constexpr std::string_view kBodyless[] = {"get", "head", "connect", "options", "trace"};
  const bool bodyless = std::ranges::any_of(kBodyless, [this](std::string_view method) {
    return Ascii::EqualsIgnoringCase(head_.method, method);
  });
  // A DELETE keeps the body that it announces, the other methods do not: intended.
  const bool emptyDelete =
      Ascii::EqualsIgnoringCase(head_.method, "delete") && !framing_.hasContentLength;
  if (!bodyless && !emptyDelete) return;
  framing_.leftUnread = framing_.contentLength != 0;
  framing_.hasContentLength = true;
  framing_.contentLength = 0;
}

void HeadReader::WipeRest() {
  Wipe(std::span(buffer_).subspan(headLength_, filled_ - headLength_));
  filled_ = headLength_;
}

void HeadReader::Reset() {
  filled_ = 0;
  headLength_ = 0;
  request_.headerCount = 0;
  head_ = {};
  framing_ = {};
  expectation_ = Expectation::kNone;
  coded_ = named_ = asksToKeep_ = asksToClose_ = false;
}

}  // namespace Orbi::Transport::PicoHttp
