#include "orbi/bindings/structure_adapter.h"

namespace Orbi::Bindings {

static constexpr std::string_view kLocalizableMessage = "com.tessel.orbi.std.localizable_message";

std::string_view Adapter<Data::LocalizableMessage>::TypeName() { return kLocalizableMessage; }
Data::Value Adapter<Data::LocalizableMessage>::ToValue(const Data::LocalizableMessage& native) {
  return native.ToValue();
}
std::optional<Data::LocalizableMessage> Adapter<Data::LocalizableMessage>::FromValue(
    const Data::Value& value, AdaptErrors& errors) {
  return ReadStructure<Data::LocalizableMessage>(
      kLocalizableMessage, value, errors, [](auto& message, auto& field) {
        field("id", message.id);
        field("default_message", message.default_message);
        field("args", message.args);
        field("localized", message.localized);
      });
}

}  // namespace Orbi::Bindings
