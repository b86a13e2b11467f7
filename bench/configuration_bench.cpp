// Configuration documents of growing size, and one key in stores of growing size. Runs inside a
// sandboxed host, whose modules it adds two to: "bench" with as many keys as the largest document
// has, served by a program that keeps the values in a file, and "table" with one key of many
// instances.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "configmanager/config_manager.h"
#include "configstore/store.h"

namespace {

namespace fs = std::filesystem;
using RyxConfigStore::Store;

constexpr int kMostKeys = 1000;
constexpr int kMostInstances = 10000;

/// Reads and applies in a few milliseconds, so that what is measured is the manager.
constexpr char kProgram[] = R"(#!/usr/bin/python3
import json, os, sys
STATE = "/var/tmp/bench-values.json"
request = json.load(sys.stdin)
values = json.load(open(STATE)) if os.path.exists(STATE) else {}
for change in request.get("changes", []):
    values[change["group"] + "/" + change["key"]] = change["new"]
if request["operation"] == "apply":
    json.dump(values, open(STATE, "w"))
json.dump({"values": values} if request["operation"] == "read" else {}, sys.stdout)
)";

/// The start of a key's member in JSON.
std::string Key(int number) {
  return std::string(R"("key)").append(std::to_string(number)).append(R"(": )");
}

void WriteModule(const std::string& name, const std::string& keys, bool withProgram) {
  const fs::path folder = fs::path("/usr/lib/tessel/configmanager/apply_modules") / name;
  fs::create_directories(folder);
  const std::string executables = withProgram ? R"({"read": "program", "apply": "program"})" : "{}";
  if (withProgram) {
    std::ofstream(folder / "program") << kProgram;
    fs::permissions(folder / "program", fs::perms::owner_all);
  }
  std::ofstream(folder / "module.json")
      << R"({"format": 1, "component": ")" << name
      << R"(", "version": "1.0", "description": "For measuring", "groups": {"group": {"keys": {)"
      << keys << R"(}}}, "executables": )" << executables << R"(, "timeout_seconds": 60})";
}

void InstallModules() {
  const std::string schema =
      R"("schema": {"type": "object", "required": ["text"], "additionalProperties": false,)"
      R"( "properties": {"name": {"type": "string"}, "text": {"type": "string", "maxLength": 64}}}})";
  std::string keys;
  for (int i = 0; i < kMostKeys; ++i)
    keys.append(i ? ", " : "")
        .append(Key(i))
        .append(R"({"description": "A text", "singleton": true, )")
        .append(schema);
  WriteModule("bench", keys, true);
  WriteModule(
      "table",
      R"("rows": {"description": "Texts", "singleton": false, "id_property": "name", )" + schema,
      false);
}

/// A document of so many keys, each of whose values tells `version`.
ConfigStoreDocument::Document MakeDocument(std::int64_t keys, const std::string& version) {
  std::string text = R"({"metadata": {"schema_version": "1.0"}, "profile": {"bench": {"group": {)";
  for (int i = 0; i < keys; ++i)
    text.append(i ? ", " : "")
        .append(Key(i))
        .append(R"({"text": "value )")
        .append(version)
        .append(R"("})");
  auto document = ConfigStoreDocument::CreateDocument(text + "}}}}");
  RyxConfigManager::CreateMergedDocument(RyxConfigManager::GenerateHostDocumentSchema(document),
                                         document);
  return document;
}

void Validate(benchmark::State& state) {
  const auto document = MakeDocument(state.range(0), "1");
  const auto schema = RyxConfigManager::GenerateHostDocumentSchema(document);
  for (auto _ : state) {
    RyxConfigManager::ValidationResult result;
    RyxConfigManager::Validate(document, schema, result, false, nullptr);
    if (!result.valid()) state.SkipWithError("not valid");
  }
}

void Impact(benchmark::State& state) {
  const auto document = MakeDocument(state.range(0), "1");
  for (auto _ : state) {
    RyxConfigManager::ImpactResult result;
    RyxConfigManager::Impact(document, result, nullptr);
    benchmark::DoNotOptimize(result.impacts.size());
  }
}

/// Every round changes every key.
void CheckAndApply(benchmark::State& state) {
  int version = 0;
  for (auto _ : state) {
    auto document = MakeDocument(state.range(0), std::to_string(++version));
    const auto checked = RyxConfigManager::CheckApply(std::move(document), nullptr);
    if (!RyxConfigManager::Apply(checked, nullptr).errors.empty()) state.SkipWithError("failed");
  }
}

void GetOneKey(benchmark::State& state) {
  Store::FromPath()->Change([&](Store::Transaction& change) {
    const RyxConfigStore::KeyAddress rows{"table", "group", "rows"};
    for (int i = 0; i < kMostInstances; ++i)
      if (i < state.range(0))
        change.Set(rows, std::to_string(i), R"({"text":"one of many"})");
      else
        change.Delete(rows, std::to_string(i));
    change.Set({"bench", "group", "key0"}, "", R"({"text":"the one"})");
  });
  for (auto _ : state)
    benchmark::DoNotOptimize(RyxConfigManager::GetCurrentConfig("bench", "group", "key0"));
}

BENCHMARK(Validate)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(Impact)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(CheckAndApply)
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK(GetOneKey)->Arg(10)->Arg(10000)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  InstallModules();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
