#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "orbi/data/value.h"
#include "orbi/std/errors.h"
#include "software/command/run_command.h"

/// What the end of a helper means to the operation that asked it.
///
/// Operations differ in which ends they look at, and clients rely on every difference: an end that
/// no rule of the operation names counts as success, and what the helper printed is taken as it
/// stands.
namespace LifeCycle {

/// A helper that has ended, as the log lines of its operation tell of it.
struct EndedHelper {
  const char* operation;
  const std::string& command;
  const CommandResult& result;
};

/// What stands in place of "{1}" in a message.
enum class FailureArgument {
  kNone,
  kSystemText,  ///< the system error text of the result's code
  kNumber,      ///< the result's code
};

/// One way a helper can end, and the error that it becomes.
struct OutcomeRule {
  std::uint32_t kinds;      ///< the CommandResult kinds it is about, as a set of KindBit
  std::optional<int> code;  ///< the one code it is about; any when unset

  FailureArgument argument;
  Com::Tessel::Orbi::Std::Errors::StandardError error;
  const char* message;                            ///< identifier of its one message; none when null
  const char* text = nullptr;                     ///< in place of the identifier's default text
  void (*log)(const EndedHelper& end) = nullptr;  ///< writes the operation's own log line
};

/// The member of OutcomeRule::kinds for one kind of CommandResult.
[[nodiscard]] constexpr std::uint32_t KindBit(CommandResult::Kind kind) { return 1U << kind; }

/// One thing that the image manager can be asked while the client waits.
struct HelperOperation {
  const char* name;       ///< in log lines
  const char* arguments;  ///< appended to the command line as they stand, blanks included
  std::span<const OutcomeRule> outcome;  ///< the first rule that applies counts
};

namespace HelperOperations {

// The desired state of the host.
extern const HelperOperation kListDepots;
extern const HelperOperation kCreateDepot;
extern const HelperOperation kDeleteDepot;
extern const HelperOperation kGetDesiredSoftware;
extern const HelperOperation kSetDesiredSoftware;
extern const HelperOperation kGetDesiredVersion;
extern const HelperOperation kSetDesiredVersion;
extern const HelperOperation kGetDesiredComponent;
extern const HelperOperation kSetDesiredComponent;
extern const HelperOperation kDeleteDesiredComponent;

// What the host runs.
extern const HelperOperation kGetHostBaseImage;
extern const HelperOperation kGetHostComponent;
extern const HelperOperation kListHostComponents;
extern const HelperOperation kListInstalledComponents;
extern const HelperOperation kGetInstalledImage;
extern const HelperOperation kListAllPaxs;
extern const HelperOperation kListOrphanPaxs;

}  // namespace HelperOperations

/// The error for a helper that was started and ended with a return code, or for one that could not
/// be run to its end: the message "com.tessel.ryx.host_settings.command.failed".
[[nodiscard]] Orbi::Data::ErrorValue CommandFailed(std::string argument);

/// @param errors  what the helper wrote to its standard error: what it tells there goes behind the
///                rule's message
/// @return the error that the end of the helper means, after its log line is written; nothing when
///         the operation goes on
[[nodiscard]] std::optional<Orbi::Data::ErrorValue> FailureOf(const HelperOperation& operation,
                                                              const std::string& command,
                                                              const CommandResult& result,
                                                              const std::string& errors = {});

}  // namespace LifeCycle
