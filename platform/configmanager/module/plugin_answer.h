#pragma once

#include <rapidjson/document.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "configmanager/results.h"

namespace RyxConfigManager {

/// Why a program of a module gave no answer; `reason` is one line about it.
using PluginFailure = ErrorInfo;

/// What a program of a module answered.
struct PluginAnswer {
  std::optional<PluginFailure> failure;  ///< nothing else is set when there is one
  std::vector<ErrorInfo> errors;
  bool needsReboot = false;
  bool needsMaintenanceMode = false;
  rapidjson::Document values;         ///< an object: "GROUP/KEY" to the effective value
  std::unique_ptr<std::string> text;  ///< what the values' texts lie in
};

/// Callable from any thread. Reads what a program wrote: a JSON object with the members "errors",
/// "impact" and "values", each of which may be missing. Others are left alone.
/// @param text  anything
/// @throws ProgramFailure  it is no answer, or not UTF-8
[[nodiscard]] PluginAnswer ReadPluginAnswer(std::string text);

}  // namespace RyxConfigManager
