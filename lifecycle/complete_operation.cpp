#include "lifecycle/complete_operation.h"

#include "orbi/std/errors.h"
#include "software/command/json_value.h"
#include "tesselibs/log.h"

namespace LifeCycle {

std::optional<Orbi::Data::ErrorValue> Attempt(const char* operation,
                                              const std::function<void()>& work) {
  try {
    work();
    return std::nullopt;
  } catch (const OperationError& e) {
    return e.error();
  } catch (const OrbiJsonSerializationError&) {
    return Com::Tessel::Orbi::Std::Errors::InternalServerError();  // the log tells why already
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "[%s]: %s\n", operation, e.what());
    return Com::Tessel::Orbi::Std::Errors::InternalServerError();
  }
}

}  // namespace LifeCycle
