#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace Orbi::Protocol::Json {

struct Null {};

/// A number that is grammatical, but outside what a value can hold: an integer of more than signed
/// 64 bits, a double that is not finite.
struct UnrepresentableNumber {
  std::string_view text;
};

using Scalar =
    std::variant<Null, bool, std::int64_t, double, std::string_view, UnrepresentableNumber>;

enum class Container { kObject, kArray };

/// Receives a JSON text's tokens in their order. A function that returns false ends the parse.
/// Views point into the text being parsed and live as long as it does.
class Events {
 public:
  virtual bool OnScalar(const Scalar& scalar) = 0;
  virtual bool OnKey(std::string_view name) = 0;
  virtual bool OnStart(Container container) = 0;
  virtual bool OnEnd() = 0;

 protected:
  ~Events() = default;
};

struct ParseFailure {
  std::string text;        ///< in English
  std::size_t offset = 0;  ///< in bytes
  bool stopped = false;    ///< by the receiver, not by the text
};

/// Containers within containers, the outermost counted as one.
inline constexpr std::size_t kMaxNesting = 100;

/// Parses one JSON text (RFC 8259), strictly: no comments, no trailing text, UTF-8 only and without
/// surrogates, integers told from doubles by their spelling.
/// @param text  parsed in place: strings are unescaped where they stand, so that no second copy of
///              a secret comes into being; its content is unspecified afterwards
/// @param maxNesting  a deeper text is refused at the first bracket too many
[[nodiscard]] std::optional<ParseFailure> ParseInPlace(std::string& text, std::size_t maxNesting,
                                                       Events& events);

/// Whether a name occurs twice. Takes O(n log n) time whatever the names are.
[[nodiscard]] bool HasDuplicates(std::span<const std::string_view> names);

}  // namespace Orbi::Protocol::Json
