#include "software/helper_call.h"

#include <algorithm>
#include <cstddef>

#include "configuration/messages/api_errors.h"
#include "lifecycle/complete_operation.h"
#include "orbi/std/errors.h"
#include "software/command/names.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

constexpr const char* kInlineHelper =
    "/usr/bin/python ++group=kestreld-nontask-forks,mem=110,stats "
    "/usr/lib/tessel/lifecycle/bin/imagemanagerctl.py";

std::string CommandLine(const HelperOperation& operation, const std::string& argument) {
  return std::string(kInlineHelper) + operation.arguments + argument;
}

/// As much of a name as a message needs.
std::string Shortened(const std::string& name) {
  std::size_t end = std::min<std::size_t>(name.size(), 80);
  while (end > 0 && end < name.size() && (name[end] & 0xC0) == 0x80) --end;  // whole characters
  return name.substr(0, end);
}

void ThrowFailure(const HelperOperation& operation, const std::string& command,
                  const CommandResult& result, const std::string& errors) {
  if (auto error = FailureOf(operation, command, result, errors))
    throw OperationError(std::move(*error));
}

}  // namespace

std::string AskHelper(const HelperOperation& operation, const std::string& argument) {
  const std::string command = CommandLine(operation, argument);
  std::string output;
  std::string errors;
  const CommandResult result = RunCommand(command, nullptr, &output, &errors);
  ThrowFailure(operation, command, result, errors);
  return output;
}

void FeedHelper(const HelperOperation& operation, const std::string& document) {
  const std::string command = CommandLine(operation, {});
  std::string errors;
  const CommandResult result = RunCommand(command, &document, nullptr, &errors);
  ThrowFailure(operation, command, result, errors);
}

void OrderHelper(const HelperOperation& operation, const std::string& argument) {
  const std::string command = CommandLine(operation, argument);
  std::string errors;
  const CommandResult result = RunCommand(command, &errors);
  ThrowFailure(operation, command, result, errors);
}

void RequireValidName(const HelperOperation& operation, const std::string& name,
                      const NameRefusal& refusal) {
  if (IsValidName(name)) return;
  Log_Level(LogLevel::kCritical, "[%s] %s\n", operation.name, refusal.log);
  throw OperationError(
      ApiError(Com::Tessel::Orbi::Std::Errors::InvalidArgument, refusal.message, {},
               {ApiMessage("com.tessel.ryx.host_settings.name.characters", {Shortened(name)})}));
}

ValuePtr ReadResults(const HelperOperation& operation, const std::string& output) {
  try {
    return JsonToValue(output);
  } catch (const OrbiJsonSerializationError&) {
    Log_Level(LogLevel::kCritical, "[%s] Couldn't de-serialize results.\n", operation.name);
    throw OperationError(Com::Tessel::Orbi::Std::Errors::InternalServerError());
  }
}

void FailAdapting(const HelperOperation& operation, const Orbi::Bindings::AdaptErrors& errors,
                  MisfitError misfit) {
  Log_Level(LogLevel::kCritical, "[%s] Could not adapt to native types : %s\n", operation.name,
            errors.ToText().c_str());
  using Com::Tessel::Orbi::Std::Errors::InternalServerError;
  throw OperationError(misfit == MisfitError::kWithMessages ? InternalServerError(errors.messages())
                                                            : InternalServerError());
}

}  // namespace LifeCycle
