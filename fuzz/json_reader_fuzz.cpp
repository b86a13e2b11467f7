// Both JSON readers, and the way back: whatever a reader accepts can be written, and what the plain
// writer writes is read as the same value, in pieces of any size.

#include "fuzz/target.h"
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
    Require(piece.size() <= size);
  }
  return whole;
}

void CheckWriter(const Data::Value& value, std::size_t piece) {
  const std::string plain = JsonDataSerializer(Secrets::kWritten).Serialize(value);
  const std::string clean = JsonDirectDataSerializer(Secrets::kWritten).Serialize(value);
  Require(WriteInPieces(value, Form::kPlain, piece) == plain);
  Require(WriteInPieces(value, Form::kClean, piece) == clean);

  Data::ErrorValue error;
  Require(JsonDataDeserializer().Deserialize(plain, error) == value);
}

}  // namespace

void Check(const std::string& input) {
  const std::size_t piece = JsonWriter::kLeastRoom + input.size() % 100;
  Data::ErrorValue error;
  if (const auto value = JsonDirectDataDeserializer().Deserialize(input, error)) {
    CheckWriter(*value, piece);
  }
  // A plain text may be nested as deep as the reader allows by typed values alone; by lists, its
  // written form is no deeper.
  if (const auto value = JsonDataDeserializer().Deserialize(input, error)) {
    const std::string plain = JsonDataSerializer(Secrets::kWritten).Serialize(*value);
    Require(WriteInPieces(*value, Form::kPlain, piece) == plain);
    (void)WriteInPieces(*value, Form::kClean, piece);
  }
}
