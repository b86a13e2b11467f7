// A value from outside fits a native structure, which then survives the way through a value, or
// is told to misfit in a bounded number of messages.

#include <optional>

#include "bindings/com/tessel/cis/task.h"
#include "bindings/com/tessel/ryx/host_settings.h"
#include "bindings/com/tessel/ryx/kestrel_daemon/software.h"
#include "fuzz/target.h"
#include "orbi/json/reader.h"

namespace {

using Orbi::Bindings::Adapter;
using Orbi::Bindings::AdaptErrors;
using Orbi::Data::Value;

template <typename T>
void Adapt(const Value& value) {
  AdaptErrors errors;
  const std::optional<T> native = Adapter<T>::FromValue(value, errors);
  Require(native.has_value() == errors.empty());
  Require(errors.messages().size() <= AdaptErrors::kMaxMessages);
  if (!native) return;
  Require(Adapter<T>::FromValue(Adapter<T>::ToValue(*native), errors) == native);
}

std::optional<Value> Read(bool plain, std::string text) {
  Orbi::Data::ErrorValue error;
  using namespace Orbi::Protocol::Json;
  return plain ? JsonDataDeserializer().Deserialize(std::move(text), error)
               : JsonDirectDataDeserializer().Deserialize(std::move(text), error);
}

}  // namespace

void Check(const std::string& input) {
  if (input.empty()) return;
  const auto value = Read(input[0] % 2 == 0, input.substr(1));
  if (!value) return;
  Adapt<Com::Tessel::Ryx::HostSettings::SoftwareSpec>(*value);
  Adapt<Com::Tessel::Cis::Task::Info>(*value);
  Adapt<Com::Tessel::Ryx::KestrelDaemon::SoftwareSvc::ScanResult>(*value);
}
