#include "orbi/core/execution_context.h"

#include <string.h>

namespace Orbi::Core {

SecurityContext::~SecurityContext() { ClearPassword(); }

void SecurityContext::ClearPassword() {
  // The whole capacity: a string that was longer before keeps its old bytes past its length.
  password.resize(password.capacity());
  explicit_bzero(password.data(), password.size());
  password.clear();
}

}  // namespace Orbi::Core
