// A request head means the same whether it arrives at once or in pieces, and no head harms its
// reader.

#include <algorithm>
#include <cstring>
#include <sstream>

#include "fuzz/target.h"
#include "transport/http/head_reader.h"

using Orbi::Transport::PicoHttp::HeadReader;

namespace {

/// Feeds `bytes` in pieces of `step` until the head is complete or refused.
/// @return whether it is complete
bool Feed(HeadReader& reader, std::string_view bytes, std::size_t step) {
  boost::system::error_code ec;
  while (!bytes.empty() && !ec) {
    const auto free = reader.Free();
    const auto count = std::min({step, bytes.size(), free.size()});
    Require(count != 0);
    std::memcpy(free.data(), bytes.data(), count);
    bytes.remove_prefix(count);
    if (reader.Take(count, ec)) return true;
  }
  return false;
}

std::string Meaning(const HeadReader& reader) {
  std::ostringstream text;
  text << reader.Head() << reader.Head().keepAlive << reader.Framing().chunked
       << reader.Framing().contentLength << reader.Framing().leftUnread
       << static_cast<int>(reader.Expects());
  return text.str();
}

}  // namespace

void Check(const std::string& input) {
  if (input.empty()) return;
  const std::size_t step = static_cast<unsigned char>(input[0]) % 16 + 1;
  const auto bytes = std::string_view(input).substr(1);
  HeadReader whole;
  HeadReader pieces;
  const bool complete = Feed(whole, bytes, HeadReader::kBufferSize);
  Require(Feed(pieces, bytes, step) == complete);
  if (!complete) return;
  Require(Meaning(whole) == Meaning(pieces));
  Require(std::ranges::is_sorted(whole.Head().headers, {}, [](const auto& f) { return f.name; }));
  Require(whole.Head().Find(":method") == whole.Head().method);
}
