#pragma once

#include <string>
#include <utility>

#include "orbi/bindings/adapter.h"
#include "orbi/data/value.h"
#include "software/command/json_value.h"
#include "software/helper_outcome.h"

/// Asking the image manager while the client waits. Every function blocks the calling thread until
/// the helper has ended, throws OperationError for an end that the operation's rules call a
/// failure, and can be called from several threads at once; helpers order their writes themselves.
namespace LifeCycle {

/// Asks with `argument` as the last word and collects what the helper prints.
/// @param argument  goes on the command line as it stands
[[nodiscard]] std::string AskHelper(const HelperOperation& operation,
                                    const std::string& argument = {});

/// Hands a document to the helper, on its standard input.
void FeedHelper(const HelperOperation& operation, const std::string& document);

/// Has the helper do something that prints nothing of interest.
/// @param argument  goes on the command line as it stands
void OrderHelper(const HelperOperation& operation, const std::string& argument);

/// How a name that is unfit for a command line is refused.
struct NameRefusal {
  const char* log;      ///< the log line behind "[OPERATION] "
  const char* message;  ///< identifier of the error's message
};

/// @throws OperationError  an invalid argument, when `name` fails IsValidName
void RequireValidName(const HelperOperation& operation, const std::string& name,
                      const NameRefusal& refusal);

/// Reads what a helper printed as clean JSON.
/// @throws OperationError  an internal server error, when it is not JSON
[[nodiscard]] ValuePtr ReadResults(const HelperOperation& operation, const std::string& output);

/// What the client learns when what a helper printed does not fit the operation's result.
enum class MisfitError {
  kWithMessages,  ///< what does not fit, field by field
  kBare,
};

/// Logs what does not fit and throws the OperationError for it.
[[noreturn]] void FailAdapting(const HelperOperation& operation,
                               const Orbi::Bindings::AdaptErrors& errors, MisfitError misfit);

/// Turns what a helper printed into the operation's native result.
/// @throws OperationError  an internal server error, when the value does not fit
template <typename T>
[[nodiscard]] T AdaptOutput(const HelperOperation& operation, const Orbi::Data::Value& value,
                            MisfitError misfit = MisfitError::kWithMessages) {
  Orbi::Bindings::AdaptErrors errors;
  if (auto native = Orbi::Bindings::Adapter<T>::FromValue(value, errors)) return *std::move(native);
  FailAdapting(operation, errors, misfit);
}

}  // namespace LifeCycle
