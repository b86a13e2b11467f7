#pragma once

#include <map>
#include <string>

#include "orbi/data/value.h"

namespace Orbi::Provider::Metadata {

/// What identifiers stand for, as the metadata interfaces serve it.
using Descriptions = std::map<std::string, Data::Value, std::less<>>;

/// The base of a container of which the process has one. It is filled while the process starts, on
/// one thread; afterwards it is only read, from any thread.
template <typename Container>
class ProcessContainer {
 public:
  static Container& Instance() {
    static Container instance;
    return instance;
  }
};

}  // namespace Orbi::Provider::Metadata
