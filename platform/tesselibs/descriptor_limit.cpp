#include "tesselibs/descriptor_limit.h"

#include <algorithm>

namespace {

constexpr rlim_t kEnough = 16384;

// Written at start-up, only read afterwards.
rlim_t softBefore = RLIM_INFINITY;

}  // namespace

std::size_t DescriptorLimit_Raise() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  softBefore = limit.rlim_cur;
  rlimit raised = limit;
  raised.rlim_cur = std::max(limit.rlim_cur, std::min(limit.rlim_max, kEnough));
  return setrlimit(RLIMIT_NOFILE, &raised) == 0 ? raised.rlim_cur : limit.rlim_cur;
}

rlimit DescriptorLimit_OfChildren() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);  // somebody else may have changed it since
  limit.rlim_cur = std::min(limit.rlim_cur, softBefore);
  return limit;
}
