#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "orbi/data/message.h"
#include "orbi/data/value.h"

/// The framework's standard errors. Each constant is a type of error; calling it makes an error
/// value of that type: `Errors::NotFound({message})`.
namespace Com::Tessel::Orbi::Std::Errors {

class StandardError {
 public:
  constexpr explicit StandardError(std::string_view id) : id_(id) {}

  [[nodiscard]] constexpr std::string_view id() const { return id_; }

  /// An error value of this type: its fields are the messages and the unset "data".
  [[nodiscard]] ::Orbi::Data::ErrorValue operator()(
      const std::vector<::Orbi::Data::LocalizableMessage>& messages = {}) const;

 private:
  std::string_view id_;
};

// NOLINTBEGIN(readability-identifier-naming): used like the functions that they are called as
inline constexpr StandardError Error{"com.tessel.orbi.std.errors.error"};
inline constexpr StandardError InternalServerError{
    "com.tessel.orbi.std.errors.internal_server_error"};
inline constexpr StandardError InvalidArgument{"com.tessel.orbi.std.errors.invalid_argument"};
inline constexpr StandardError NotFound{"com.tessel.orbi.std.errors.not_found"};
inline constexpr StandardError AlreadyExists{"com.tessel.orbi.std.errors.already_exists"};
inline constexpr StandardError NotAllowedInCurrentState{
    "com.tessel.orbi.std.errors.not_allowed_in_current_state"};
inline constexpr StandardError ResourceInaccessible{
    "com.tessel.orbi.std.errors.resource_inaccessible"};
inline constexpr StandardError ServiceUnavailable{"com.tessel.orbi.std.errors.service_unavailable"};
inline constexpr StandardError Unsupported{"com.tessel.orbi.std.errors.unsupported"};
inline constexpr StandardError Unauthenticated{"com.tessel.orbi.std.errors.unauthenticated"};
inline constexpr StandardError Unauthorized{"com.tessel.orbi.std.errors.unauthorized"};
inline constexpr StandardError OperationNotFound{"com.tessel.orbi.std.errors.operation_not_found"};
// NOLINTEND(readability-identifier-naming)

}  // namespace Com::Tessel::Orbi::Std::Errors
