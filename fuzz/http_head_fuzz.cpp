// A request head means the same whether it arrives at once or in pieces, and no head harms its
// reader.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string_view>

#include "transport/http/head_reader.h"

using Orbi::Transport::PicoHttp::HeadReader;

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

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
       << reader.Framing().contentLength << static_cast<int>(reader.Expects());
  return text.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t step = data[0] % 16 + 1;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

  HeadReader whole;
  HeadReader pieces;
  const bool complete = Feed(whole, bytes, HeadReader::kBufferSize);
  Require(Feed(pieces, bytes, step) == complete);
  if (!complete) return 0;
  Require(Meaning(whole) == Meaning(pieces));
  Require(std::ranges::is_sorted(whole.Head().headers, {}, [](const auto& f) { return f.name; }));
  Require(whole.Head().Find(":method") == whole.Head().method);
  return 0;
}
