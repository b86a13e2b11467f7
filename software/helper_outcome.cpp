#include "software/helper_outcome.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "configuration/messages/api_errors.h"
#include "orbi/data/message.h"
#include "software/helper_words.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

namespace Errors = Com::Tessel::Orbi::Std::Errors;

constexpr const char* kCommandFailed = "com.tessel.ryx.host_settings.command.failed";

constexpr std::uint32_t kNotStarted = KindBit(CommandResult::kNotStarted);
constexpr std::uint32_t kExited = KindBit(CommandResult::kFailed);
constexpr std::uint32_t kNotFed = KindBit(CommandResult::kInputNotWritten);
constexpr std::uint32_t kNotRead = KindBit(CommandResult::kOutputNotRead);

/// Told by the system's text for the result's code, whatever the code is.
constexpr OutcomeRule StartFailure(std::uint32_t kinds) {
  return {kinds, {}, FailureArgument::kSystemText, Errors::InternalServerError, kCommandFailed};
}

/// Told by the number of the result's code.
constexpr OutcomeRule ExitFailure(std::uint32_t kinds = kExited) {
  return {kinds, {}, FailureArgument::kNumber, Errors::InternalServerError, kCommandFailed};
}

constexpr OutcomeRule ExitCode(int code, Errors::StandardError error,
                               const char* message = nullptr) {
  return {kExited, code, FailureArgument::kNone, error, message};
}

constexpr OutcomeRule Logged(OutcomeRule rule, void (*log)(const EndedHelper& end)) {
  rule.log = log;
  return rule;
}

void LogSoftwareNotFound(const EndedHelper& end) {
  Log_Level(LogLevel::kCritical, "[%s] Could not find SoftwareSpec\n", end.operation);
}

void LogComponentsNotAsked(const EndedHelper& end) {
  Log_Level(LogLevel::kCritical, "Failed to POPEN while running command: %s\n",
            end.command.c_str());
}

void LogComponentsNotFetched(const EndedHelper& end) {
  Log_Level(LogLevel::kCritical, "[%s]: Failed to fetch components list\n", end.operation);
}

void LogImageCommandFailed(const EndedHelper& end) {
  Log_Level(LogLevel::kCritical, "RunCommand failed with error code [%d / %s]\n",
            static_cast<int>(end.result.kind),
            std::generic_category().message(end.result.code).c_str());
}

constexpr OutcomeRule kListDepotsOutcome[] = {StartFailure(kNotStarted), ExitFailure()};

constexpr OutcomeRule kCreateDepotOutcome[] = {
    StartFailure(kNotStarted | kNotFed),
    ExitCode(80, Errors::AlreadyExists),
    ExitCode(81, Errors::InternalServerError),
    ExitCode(83, Errors::InternalServerError, "com.tessel.ryx.host_settings.depot.connect.error"),
    ExitFailure(),
};

constexpr OutcomeRule kDeleteDepotOutcome[] = {
    StartFailure(kNotStarted),
    ExitCode(82, Errors::NotFound, "com.tessel.ryx.host_settigns.depot.notfound"),
    ExitFailure(),
};

constexpr OutcomeRule kGetDesiredSoftwareOutcome[] = {
    StartFailure(kNotStarted),
    Logged(ExitCode(82, Errors::NotFound, "com.tessel.ryx.host_settings.software.notfound"),
           LogSoftwareNotFound),
};

constexpr OutcomeRule kSetDesiredSoftwareOutcome[] = {
    StartFailure(kNotStarted | kNotFed),
    ExitCode(82, Errors::NotFound, "com.tessel.ryx.host_settings.software.component.notfound"),
    ExitFailure(),
};

// The version texts are not JSON, so output that could not be read to its end would go unnoticed.
constexpr OutcomeRule kGetDesiredTextOutcome[] = {
    StartFailure(kNotStarted),
    ExitCode(82, Errors::NotFound),
    ExitFailure(kExited | kNotRead),
};

constexpr OutcomeRule kSetDesiredVersionOutcome[] = {
    StartFailure(kNotStarted),
    ExitCode(82, Errors::NotFound, "com.tessel.ryx.host_settings.software.ryx.notfound"),
    ExitCode(84, Errors::InvalidArgument),
    ExitFailure(),
};

constexpr OutcomeRule kSetDesiredComponentOutcome[] = {
    StartFailure(kNotStarted),
    ExitCode(81, Errors::InvalidArgument),
    ExitCode(82, Errors::NotFound),
    ExitFailure(),
};

constexpr OutcomeRule kDeleteDesiredComponentOutcome[] = {
    StartFailure(kNotStarted),
    ExitCode(80, Errors::InternalServerError),
    ExitCode(82, Errors::NotFound),
    ExitFailure(),
};

constexpr OutcomeRule kGetHostBaseImageOutcome[] = {StartFailure(kNotStarted)};

constexpr OutcomeRule kHostComponentsOutcome[] = {StartFailure(kNotStarted | kExited)};

constexpr OutcomeRule kListInstalledComponentsOutcome[] = {
    Logged(StartFailure(kNotStarted), LogComponentsNotAsked),
    Logged(ExitFailure(), LogComponentsNotFetched),
    Logged(StartFailure(kNotFed | kNotRead), LogComponentsNotFetched),
};

constexpr std::uint32_t kAnyFailure = kNotStarted | kExited | kNotFed | kNotRead;

constexpr OutcomeRule kGetInstalledImageOutcome[] = {
    {kAnyFailure, 145, FailureArgument::kNone, Errors::InternalServerError, kCommandFailed,
     "An error occurred while extracting image info on the host.", LogImageCommandFailed},
    Logged(StartFailure(kAnyFailure), LogImageCommandFailed),
};

constexpr OutcomeRule kListPaxsOutcome[] = {
    ExitFailure(),
    StartFailure(kNotStarted | kNotFed | kNotRead),
};

std::string ArgumentText(FailureArgument argument, const CommandResult& result) {
  return argument == FailureArgument::kSystemText ? std::generic_category().message(result.code)
                                                  : std::to_string(result.code);
}

Orbi::Data::ErrorValue MakeFailure(const OutcomeRule& rule, const CommandResult& result) {
  if (rule.message == nullptr) return rule.error();
  std::vector<std::string> args;
  if (rule.argument != FailureArgument::kNone) args.push_back(ArgumentText(rule.argument, result));
  // A text of its own would be lost to the catalogues' one for the identifier.
  if (rule.text != nullptr)
    return rule.error({Orbi::Data::MakeMessage(rule.message, rule.text, std::move(args))});
  return ApiError(rule.error, rule.message, std::move(args));
}

void AddWords(const std::vector<Orbi::Data::LocalizableMessage>& words,
              Orbi::Data::ErrorValue& error) {
  const auto messages = std::ranges::find(error.fields, "messages", &Orbi::Data::Field::name);
  auto* const list = messages->value.As<Orbi::Data::List>();
  for (const auto& message : words) list->items.push_back(message.ToValue());
}

}  // namespace

namespace HelperOperations {

constinit const HelperOperation kListDepots{"List", " depots --list ", kListDepotsOutcome};
constinit const HelperOperation kCreateDepot{"Create", " depots --create ", kCreateDepotOutcome};
constinit const HelperOperation kDeleteDepot{"Delete", " depots --delete ", kDeleteDepotOutcome};
constinit const HelperOperation kGetDesiredSoftware{"Get", " software --get",
                                                    kGetDesiredSoftwareOutcome};
constinit const HelperOperation kSetDesiredSoftware{"Set", " software --set",
                                                    kSetDesiredSoftwareOutcome};
constinit const HelperOperation kGetDesiredVersion{"Get", " software_ryx --get ",
                                                   kGetDesiredTextOutcome};
constinit const HelperOperation kSetDesiredVersion{"Set", " software_ryx --set ",
                                                   kSetDesiredVersionOutcome};
constinit const HelperOperation kGetDesiredComponent{"Get", " components --get ",
                                                     kGetDesiredTextOutcome};
constinit const HelperOperation kSetDesiredComponent{"Set", " components --set ",
                                                     kSetDesiredComponentOutcome};
constinit const HelperOperation kDeleteDesiredComponent{"Delete", " components --del ",
                                                        kDeleteDesiredComponentOutcome};
constinit const HelperOperation kGetHostBaseImage{"Get", " ryx --get ", kGetHostBaseImageOutcome};
constinit const HelperOperation kGetHostComponent{"Get", " component --get ",
                                                  kHostComponentsOutcome};
constinit const HelperOperation kListHostComponents{"List", " component --list ",
                                                    kHostComponentsOutcome};
constinit const HelperOperation kListInstalledComponents{"List", " component --list ",
                                                         kListInstalledComponentsOutcome};
constinit const HelperOperation kGetInstalledImage{"Get", " software --getsoftwareinfo",
                                                   kGetInstalledImageOutcome};
constinit const HelperOperation kListAllPaxs{"List", " PAX --list-all", kListPaxsOutcome};
constinit const HelperOperation kListOrphanPaxs{"List", " PAX --list-orphan", kListPaxsOutcome};

}  // namespace HelperOperations

Orbi::Data::ErrorValue CommandFailed(std::string argument) {
  return ApiError(Errors::InternalServerError, kCommandFailed, {std::move(argument)});
}

std::optional<Orbi::Data::ErrorValue> FailureOf(const HelperOperation& operation,
                                                const std::string& command,
                                                const CommandResult& result,
                                                const std::string& errors) {
  for (const OutcomeRule& rule : operation.outcome) {
    if ((rule.kinds & KindBit(result.kind)) == 0) continue;
    if (rule.code && *rule.code != result.code) continue;
    if (rule.log != nullptr) rule.log({operation.name, command, result});
    auto error = MakeFailure(rule, result);
    AddWords(ReadHelperWords(errors), error);
    return error;
  }
  return std::nullopt;
}

}  // namespace LifeCycle
