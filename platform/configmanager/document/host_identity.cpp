#include "configmanager/document/host_identity.h"

#include <algorithm>
#include <fstream>
#include <optional>
#include <stdexcept>

#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "tesselibs/uuid.h"

namespace RyxConfigManager {
namespace {

/// Where this system's names of hosts are unique: a random UUID, never to be changed.
constexpr boost::uuids::uuid kHostNames = {{0x1b, 0x9a, 0x77, 0x68, 0x59, 0x3f, 0x44, 0x7c, 0x9e,
                                            0x84, 0x91, 0xd7, 0xc3, 0x44, 0xde, 0xd5}};

std::string FirstWord(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::string word;
  file >> word;
  return word;
}

std::optional<boost::uuids::uuid> ProductUuid(const std::string& text) {
  UUID_Packed bytes;
  if (UUID_PackText(text, bytes) == 0) return std::nullopt;
  const auto all = [&](std::uint8_t value) {
    return std::all_of(bytes.begin(), bytes.end(), [&](std::uint8_t b) { return b == value; });
  };
  if (all(0x00) || all(0xff)) return std::nullopt;
  boost::uuids::uuid uuid;
  std::copy(bytes.begin(), bytes.end(), uuid.begin());
  return uuid;
}

std::optional<boost::uuids::uuid> DerivedUuid(const std::string& machineId) {
  const bool valid = machineId.size() == 32 &&
                     machineId.find_first_not_of("0123456789abcdef") == std::string::npos &&
                     machineId.find_first_not_of('0') != std::string::npos;
  if (!valid) return std::nullopt;
  return boost::uuids::name_generator_sha1(kHostNames)(machineId);
}

}  // namespace

std::string HostIdentity(const std::filesystem::path& productUuid,
                         const std::filesystem::path& machineId) {
  if (const auto uuid = ProductUuid(FirstWord(productUuid))) return to_string(*uuid);
  if (const auto uuid = DerivedUuid(FirstWord(machineId))) return to_string(*uuid);
  throw std::runtime_error("The host has neither a product UUID nor a machine id.");
}

}  // namespace RyxConfigManager
