#pragma once

#include <string>
#include <system_error>

namespace HostCtl::Lib {

/// A process could not be started; code() is the system's error number.
class HostCtlException : public std::system_error {
 public:
  HostCtlException(int error, const std::string& what)
      : std::system_error(error, std::generic_category(), what) {}
};

}  // namespace HostCtl::Lib
