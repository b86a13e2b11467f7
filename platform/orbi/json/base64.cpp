#include "orbi/json/base64.h"

#include <openssl/evp.h>

namespace Orbi::Protocol::Json {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

void AppendBase64(std::string_view bytes, std::string& text) {
  const std::size_t before = text.size();
  const std::size_t length = (bytes.size() + 2) / 3 * 4;
  text.resize(before + length + 1);  // the encoder ends its output with a zero byte
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data() + before),
                  reinterpret_cast<const unsigned char*>(bytes.data()),
                  static_cast<int>(bytes.size()));
  text.resize(before + length);
}

std::optional<std::string> DecodeBase64(std::string_view text) {
  // The decoder skips white space and takes padding anywhere, so the form is checked here.
  const std::size_t digits = text.find_last_not_of('=') + 1;
  const std::size_t padding = text.size() - digits;
  if (text.size() % 4 != 0 || padding > 2) return std::nullopt;
  if (text.substr(0, digits).find_first_not_of(kAlphabet) != std::string_view::npos) {
    return std::nullopt;
  }
  std::string bytes(text.size() / 4 * 3, '\0');
  const int decoded = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                      reinterpret_cast<const unsigned char*>(text.data()),
                                      static_cast<int>(text.size()));
  if (decoded < 0) return std::nullopt;
  bytes.resize(bytes.size() - padding);
  return bytes;
}

}  // namespace Orbi::Protocol::Json
