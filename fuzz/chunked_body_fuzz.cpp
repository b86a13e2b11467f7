// A chunked body decodes to the same bytes, and ends or fails alike, whatever the packet
// boundaries.

#include <algorithm>

#include "fuzz/target.h"
#include "transport/http/chunk_decoder.h"

using Orbi::Transport::PicoHttp::PicoHttpDetail::ChunkDecoder;

namespace {

struct Decoded {
  std::string body;
  std::size_t consumed = 0;
  bool done = false;
  bool failed = false;

  bool operator==(const Decoded&) const = default;
};

Decoded Decode(const std::string& coded, std::size_t step) {
  ChunkDecoder decoder;
  Decoded decoded;
  while (decoded.consumed < coded.size() && !decoder.Done() && !decoder.Failed()) {
    auto piece = coded.substr(decoded.consumed, step);
    const auto [consumed, produced] = decoder.Decode(piece);
    Require(produced <= consumed && consumed <= piece.size());
    Require(consumed == piece.size() || decoder.Done() || decoder.Failed());
    decoded.body.append(piece, 0, produced);
    decoded.consumed += consumed;
  }
  decoded.done = decoder.Done();
  decoded.failed = decoder.Failed();
  return decoded;
}

}  // namespace

void Check(const std::string& input) {
  if (input.empty()) return;
  const std::size_t step = static_cast<unsigned char>(input[0]) % 16 + 1;
  const std::string coded = input.substr(1);
  Require(Decode(coded, coded.size() + 1) == Decode(coded, step));
}
