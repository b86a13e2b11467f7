// Both JSON readers, and the way back: whatever a reader accepts can be written, and what the plain
// writer writes is read as the same value, in pieces of any size.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orbi/json/reader.h"
#include "orbi/json/writer.h"

using namespace Orbi;
using namespace Orbi::Protocol::Json;

namespace {

std::string WriteInPieces(const Data::Value& value, Form form, std::size_t size) {
  JsonWriter writer(value, form, Secrets::kWritten);
  std::string whole, piece;
  for (bool more = true; more; whole += piece) {
    piece.clear();
    more = writer.Write(piece, size);
    if (piece.size() > size) std::abort();
  }
  return whole;
}

void Check(const Data::Value& value, std::size_t piece) {
  const std::string plain = JsonDataSerializer(Secrets::kWritten).Serialize(value);
  const std::string clean = JsonDirectDataSerializer(Secrets::kWritten).Serialize(value);
  if (WriteInPieces(value, Form::kPlain, piece) != plain) std::abort();
  if (WriteInPieces(value, Form::kClean, piece) != clean) std::abort();

  Data::ErrorValue error;
  const auto again = JsonDataDeserializer().Deserialize(plain, error);
  if (!again || *again != value) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::size_t piece = JsonWriter::kLeastRoom + size % 100;
  Data::ErrorValue error;
  if (const auto value = JsonDirectDataDeserializer().Deserialize(text, error)) {
    Check(*value, piece);
  }
  // A plain text may be nested as deep as the reader allows by typed values alone; by lists, its
  // written form is no deeper.
  if (const auto value = JsonDataDeserializer().Deserialize(text, error)) {
    const std::string plain = JsonDataSerializer(Secrets::kWritten).Serialize(*value);
    if (WriteInPieces(*value, Form::kPlain, piece) != plain) std::abort();
    (void)WriteInPieces(*value, Form::kClean, piece);
  }
  return 0;
}
