#include "configmanager/module/plugin_answer.h"

#include <rapidjson/error/en.h>

#include <span>
#include <string_view>
#include <utility>

#include "configmanager/module/program.h"
#include "configmanager/schema/violations.h"
#include "configstore/document.h"
#include "tesselibs/json_document.h"
#include "tesselibs/log.h"

namespace RyxConfigManager {
namespace {

using JsonDocument::FindMember;
using JsonDocument::TextOf;
using rapidjson::Value;

/// An answer holds values, which are as deep as documents, a few containers down.
constexpr unsigned kMaxAnswerDepth = ConfigStoreDocument::kMaxDepth + 8;

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

ErrorInfo ReadError(const Value& error) {
  ErrorInfo read;
  read.id = TextOf(FindMember(error, "id"));
  read.path = TextOf(FindMember(error, "path"));
  Require(!read.id.empty(), "an error without an id");
  for (const Value& argument : Elements(FindMember(error, "args"), "\"args\" is no list")) {
    Require(argument.IsString(), "an argument is no text");
    read.args.emplace_back(TextOf(&argument));
  }
  return read;
}

void ReadErrors(const Value& document, PluginAnswer& answer) {
  Violations errors;
  for (const Value& error : Elements(FindMember(document, "errors"), "\"errors\" is no list")) {
    errors.Add(ReadError(error));
  }
  if (errors.uncollected() != 0)
    Log_Level(LogLevel::kError, "A module has %zu more errors than are reported.\n",
              errors.uncollected());
  answer.errors = errors.Take();
}

void ReadImpact(const Value& impact, PluginAnswer& answer) {
  const std::string_view name = TextOf(&impact);
  Require(name == "reboot" || name == "maintenance-mode", "an unknown impact");
  (name == "reboot" ? answer.needsReboot : answer.needsMaintenanceMode) = true;
}

void Require(const rapidjson::ParseResult& result) {
  Require(!result.IsError(), rapidjson::GetParseError_En(result.Code()));
}

}  // namespace

PluginAnswer ReadPluginAnswer(std::string text) {
  PluginAnswer answer;
  answer.text = std::make_unique<std::string>(std::move(text));
  rapidjson::Document& document = answer.values;
  // What a module writes ends in records and answers to clients: it has to be UTF-8.
  Require(JsonDocument::ParseInPlace(*answer.text, document, kMaxAnswerDepth,
                                     JsonDocument::Strings::kUtf8));
  Require(document.IsObject(), "no object");
  ReadErrors(document, answer);
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

}  // namespace RyxConfigManager
