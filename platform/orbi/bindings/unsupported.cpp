#include "orbi/bindings/unsupported.h"

#include "orbi/l10n/catalogue.h"
#include "orbi/std/errors.h"

namespace Orbi::Bindings {

Data::ErrorValue UnsupportedError(const char* service, const char* operation) {
  return Com::Tessel::Orbi::Std::Errors::Unsupported(
      {L10n::FrameworkMessage("orbi.provider.operation.unsupported", {service, operation})});
}

}  // namespace Orbi::Bindings
