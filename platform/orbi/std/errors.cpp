#include "orbi/std/errors.h"

namespace Com::Tessel::Orbi::Std::Errors {

::Orbi::Data::ErrorValue StandardError::operator()(
    const std::vector<::Orbi::Data::LocalizableMessage>& messages) const {
  ::Orbi::Data::List list;
  for (const auto& message : messages) list.items.push_back(message.ToValue());
  ::Orbi::Data::ErrorValue error{std::string(id_), {}};
  error.Add("messages", std::move(list)).Add("data", ::Orbi::Data::Optional{});
  return error;
}

}  // namespace Com::Tessel::Orbi::Std::Errors
