// Whatever a module's program writes, it is an answer or none; the values of an answer can be
// printed, which gives UTF-8 that reads as the same values.

#include "configmanager/module/plugin_answer.h"
#include "configmanager/module/program.h"
#include "configmanager/schema/value_check.h"
#include "configmanager/state/setting_values.h"
#include "fuzz/target.h"
#include "tesselibs/json_document.h"

using RyxConfigManager::PluginAnswer;
using RyxConfigManager::ReadPluginAnswer;

/// Of members of one name, only the first is compared.
static bool HasDuplicates(const rapidjson::Value& value) {
  RyxConfigManager::Violations violations;
  RyxConfigManager::CheckWellFormed(value, {}, violations);
  return !violations.empty();
}

void Check(const std::string& input) {
  PluginAnswer answer;
  try {
    answer = ReadPluginAnswer(input);
  } catch (const RyxConfigManager::ProgramFailure&) {
    return;
  }
  Require(!answer.failure && answer.values.IsObject());
  for (const auto& error : answer.errors) Require(!error.id.empty());
  const auto values = JsonDocument::Print(answer.values, 0);
  const auto again = ReadPluginAnswer("{\"values\":" + std::string(values.GetString()) + "}");
  Require(RyxConfigManager::AreEqual(&again.values, &answer.values) ||
          HasDuplicates(answer.values));
}
