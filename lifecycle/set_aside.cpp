#include "lifecycle/set_aside.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <system_error>

namespace LifeCycle {
namespace {

constexpr int kMostOfOneSecond = 1000;

/// @param take  takes a name; returns false, with errno, when it cannot be had
template <typename Take>
std::string FirstFree(const std::string& path, const Take& take) {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  char stamp[32];
  std::strftime(stamp, sizeof stamp, ".%Y%m%dT%H%M%SZ", gmtime_r(&now, &utc));
  const std::string dated = path + stamp;
  std::string name = dated;
  for (int i = 1; !take(name); ++i) {
    if (errno != EEXIST || i == kMostOfOneSecond)
      throw std::system_error(errno, std::generic_category(), name);
    name = dated + "-" + std::to_string(i);
  }
  return name;
}

}  // namespace

std::string NameToSetAside(const std::string& path) {
  return FirstFree(path, [](const std::string& name) {
    const bool isThere = access(name.c_str(), F_OK) == 0;
    errno = EEXIST;
    return !isThere;
  });
}

std::string SetAside(const std::string& path) {
  return FirstFree(path,
                   [&](const std::string& name) { return link(path.c_str(), name.c_str()) == 0; });
}

}  // namespace LifeCycle
