#include "configmanager/module/plugin.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <array>
#include <cstddef>
#include <utility>

#include "configmanager/module/program.h"
#include "tesselibs/log.h"

namespace RyxConfigManager {
namespace {

using rapidjson::Value;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

struct OperationTraits {
  const char* name;
  std::filesystem::path Executables::*executable;
  const char* messages;  ///< what the identifiers of its failures have in common
};

/// In the order of PluginOperation.
constexpr std::array<OperationTraits, 4> kOperations{{
    {"validate", &Executables::validate, "com.tessel.ryx.settings.validation.plugin."},
    {"impact", &Executables::impact, "com.tessel.ryx.settings.impact.plugin."},
    {"read", &Executables::read, "com.tessel.ryx.settings.impact.plugin."},
    {"apply", &Executables::apply, "com.tessel.ryx.settings.apply.plugin."},
}};

/// In the order of ChangeAction.
constexpr std::array<const char*, 3> kActions{"add", "set", "delete"};

void WriteMember(Writer& writer, const char* name, const std::string& text) {
  writer.Key(name);
  writer.String(text);
}

void WriteMember(Writer& writer, const char* name, const Value* value) {
  writer.Key(name);
  if (value == nullptr) {
    writer.Null();
  } else {
    value->Accept(writer);
  }
}

void WriteChange(Writer& writer, const Change& change) {
  writer.StartObject();
  WriteMember(writer, "group", change.key->address.group);
  WriteMember(writer, "key", change.key->address.key);
  WriteMember(writer, "action", kActions.at(static_cast<std::size_t>(change.action)));
  if (change.key->singleton) {
    WriteMember(writer, "id", nullptr);
  } else {
    WriteMember(writer, "id", change.instance);
  }
  WriteMember(writer, "old", change.oldValue);
  WriteMember(writer, "new", change.newValue);
  writer.EndObject();
}

std::string MakeRequest(const Module& module, const char* operation,
                        std::span<const Change> changes, const TaskInput* task) {
  rapidjson::StringBuffer text;
  Writer writer(text);
  writer.StartObject();
  WriteMember(writer, "operation", std::string(operation));
  WriteMember(writer, "component", module.component);
  WriteMember(writer, "task_id", task == nullptr ? std::string() : task->taskId);
  writer.Key("changes");
  writer.StartArray();
  for (const Change& change : changes) WriteChange(writer, change);
  writer.EndArray();
  writer.EndObject();
  return {text.GetString(), text.GetSize()};
}

PluginFailure MakeFailure(const Module& module, PluginOperation operation,
                          ProgramFailure::Kind kind, const std::string& reason,
                          const std::string& lastWords = {}) {
  const OperationTraits& traits = kOperations.at(static_cast<std::size_t>(operation));
  const std::string line = module.component + ": the program for \"" + traits.name + "\" " + reason;
  Log_Level(LogLevel::kCritical, "%s\n", line.c_str());
  const char* ending = kind == ProgramFailure::Kind::kSaidSo ? "failed" : "unexpected.error";
  PluginFailure failure{std::string(traits.messages) + ending, {module.component}};
  failure.reason = lastWords.empty() ? line : line + ": " + lastWords;
  return failure;
}

}  // namespace

PluginFailure BadAnswer(const Module& module, PluginOperation operation,
                        const std::string& reason) {
  return MakeFailure(module, operation, ProgramFailure::Kind::kUnexpected, "bad answer: " + reason);
}

PluginAnswer RunPlugin(const Module& module, PluginOperation operation,
                       std::span<const Change> changes, const TaskInput* task) {
  const OperationTraits& traits = kOperations.at(static_cast<std::size_t>(operation));
  const std::filesystem::path& program = module.executables.*traits.executable;
  PluginAnswer answer;
  answer.values.SetObject();
  if (program.empty()) return answer;
  try {
    return ReadPluginAnswer(
        RunProgram(program, MakeRequest(module, traits.name, changes, task), module.timeout, task));
  } catch (const ProgramFailure& failure) {
    answer.failure =
        MakeFailure(module, operation, failure.kind(), failure.what(), failure.lastWords());
    return answer;
  }
}

}  // namespace RyxConfigManager
