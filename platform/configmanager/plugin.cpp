#include "configmanager/plugin.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <array>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "configmanager/program.h"
#include "configstore/document.h"
#include "tesselibs/json_document.h"
#include "tesselibs/log.h"

namespace RyxConfigManager {
namespace {

using JsonDocument::FindMember;
using JsonDocument::TextOf;
using rapidjson::Value;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

/// An answer holds values, which are as deep as documents, a few containers down.
constexpr unsigned kMaxAnswerDepth = ConfigStoreDocument::kMaxDepth + 8;

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

void Require(bool condition, const char* what) {
  if (!condition) {
    throw ProgramFailure(ProgramFailure::Kind::kUnexpected, std::string("bad answer: ") + what);
  }
}

/// The elements of a list that may be missing.
std::span<const Value> Elements(const Value* list, const char* what) {
  if (list == nullptr) return {};
  Require(list->IsArray(), what);
  return {list->Begin(), list->Size()};
}

ValidationErrorInfo ReadError(const Value& error) {
  ValidationErrorInfo read;
  read.id = TextOf(FindMember(error, "id"));
  read.path = TextOf(FindMember(error, "path"));
  Require(!read.id.empty(), "an error without an id");
  for (const Value& argument : Elements(FindMember(error, "args"), "\"args\" is no list")) {
    Require(argument.IsString(), "an argument is no text");
    read.args.emplace_back(TextOf(&argument));
  }
  return read;
}

void ReadImpact(const Value& impact, PluginAnswer& answer) {
  const std::string_view name = TextOf(&impact);
  Require(name == "reboot" || name == "maintenance-mode", "an unknown impact");
  (name == "reboot" ? answer.needsReboot : answer.needsMaintenanceMode) = true;
}

void Require(const rapidjson::ParseResult& result) {
  Require(!result.IsError(), rapidjson::GetParseError_En(result.Code()));
}

PluginAnswer ReadAnswer(std::string text) {
  // What a module writes ends in records and answers to clients: it has to be UTF-8.
  rapidjson::StringStream stream(text.c_str());
  rapidjson::BaseReaderHandler<> nothing;
  Require(rapidjson::Reader()
              .Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag>(
                  stream, nothing));
  PluginAnswer answer;
  answer.text = std::make_unique<std::string>(std::move(text));
  rapidjson::Document& document = answer.values;
  Require(JsonDocument::ParseInPlace(*answer.text, document, kMaxAnswerDepth));
  Require(document.IsObject(), "no object");
  for (const Value& error : Elements(FindMember(document, "errors"), "\"errors\" is no list")) {
    answer.errors.push_back(ReadError(error));
  }
  for (const Value& impact : Elements(FindMember(document, "impact"), "\"impact\" is no list")) {
    ReadImpact(impact, answer);
  }
  Value values(rapidjson::kObjectType);
  if (Value* found = FindMember(document, "values")) {
    Require(found->IsObject(), "\"values\" is no object");
    values.Swap(*found);
  }
  static_cast<Value&>(document).Swap(values);
  return answer;
}

PluginFailure MakeFailure(const Module& module, PluginOperation operation,
                          ProgramFailure::Kind kind, const std::string& reason) {
  const OperationTraits& traits = kOperations.at(static_cast<std::size_t>(operation));
  const std::string line = module.component + ": the program for \"" + traits.name + "\" " + reason;
  Log_Level(2, "%s\n", line.c_str());
  const char* ending = kind == ProgramFailure::Kind::kSaidSo ? "failed" : "unexpected.error";
  return {{std::string(traits.messages) + ending, {module.component}}, line};
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
    return ReadAnswer(
        RunProgram(program, MakeRequest(module, traits.name, changes, task), module.timeout, task));
  } catch (const ProgramFailure& failure) {
    answer.failure = MakeFailure(module, operation, failure.kind(), failure.what());
    return answer;
  }
}

}  // namespace RyxConfigManager
