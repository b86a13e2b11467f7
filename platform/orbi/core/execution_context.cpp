#include "orbi/core/execution_context.h"

#include "tesselibs/wipe.h"

namespace Orbi::Core {

SecurityContext::~SecurityContext() { ClearPassword(); }

void SecurityContext::ClearPassword() { Wipe(password); }

}  // namespace Orbi::Core
