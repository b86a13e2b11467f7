#include "tesselibs/uuid.h"

#include <algorithm>

#include <boost/uuid/entropy_error.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

std::optional<std::string> UUID_CreateRandom() {
  try {
    return to_string(boost::uuids::random_generator_pure()());
  } catch (const boost::uuids::entropy_error&) {
    return std::nullopt;
  }
}

std::size_t UUID_PackText(std::string_view text, UUID_Packed& packed) {
  // The generator also takes forms with braces or without hyphens, which have other lengths.
  if (text.size() != 36) return 0;
  try {
    const auto uuid = boost::uuids::string_generator()(text.begin(), text.end());
    std::copy(uuid.begin(), uuid.end(), packed.begin());
    return packed.size();
  } catch (const std::runtime_error&) {
    return 0;
  }
}
