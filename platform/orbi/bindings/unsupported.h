#pragma once

#include "orbi/data/value.h"

namespace Orbi::Bindings {

/// The error of an operation that this server knows but does not do.
[[nodiscard]] Data::ErrorValue UnsupportedError(const char* service, const char* operation);

}  // namespace Orbi::Bindings
