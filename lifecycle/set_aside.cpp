#include "lifecycle/set_aside.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <system_error>

namespace LifeCycle {
namespace {

constexpr int kMostOfOneSecond = 1000;

}  // namespace

std::string SetAside(const std::string& path) {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  char stamp[32];
  std::strftime(stamp, sizeof stamp, ".%Y%m%dT%H%M%SZ", gmtime_r(&now, &utc));
  const std::string dated = path + stamp;
  std::string name = dated;
  for (int i = 1; link(path.c_str(), name.c_str()) != 0; ++i) {
    if (errno != EEXIST || i == kMostOfOneSecond)
      throw std::system_error(errno, std::generic_category(), name);
    name = dated + "-" + std::to_string(i);
  }
  return name;
}

}  // namespace LifeCycle
