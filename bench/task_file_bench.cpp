// Reading and changing task files beside a bare RapidJSON parse of the same file. Runs inside a
// sandboxed host.

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "lifecycle/task_file.h"

namespace {

constexpr const char* kPath = "/var/tessel/lifecycle/bench-tasks.json";

std::string Identifier(int number) {
  char text[37];
  std::snprintf(text, sizeof text, "%08x-6a6f-4f6b-9d8b-2f7d3f0d1c11",
                static_cast<unsigned>(number));
  return text;
}

/// Records as a host has them: most ended well and have a result, some failed, the last one runs.
void WriteTaskFile(int records) {
  std::ofstream file(kPath, std::ios::trunc);
  file << '{';
  for (int i = 0; i < records; ++i) {
    if (i) file << ',';
    file << '"' << Identifier(i) << R"(":{"status":")"
         << (i == records - 1 ? "RUNNING"
             : i % 10         ? "SUCCEEDED"
                              : "FAILED")
         << R"(","operation":"com.tessel.ryx.kestrel_daemon.software.scan$task","user":"root",)"
         << R"("progress":{"completed":50,"total":100},"startTime":"2026-11-21T02:12:52.123Z",)"
         << R"("endTime":"2026-11-21T02:12:58.456Z")";
    if (i % 10) {
      file
          << R"(,"result":"{\"STRUCTURE\":{\"com.tessel.ryx.kestrel_daemon.software.scan_result\":{\"status\":\"COMPLIANT\"}}}")";
    } else {
      file
          << R"(,"error":{"message":{"id":"com.tessel.pelorus.lifecycle.RyxImage.UnknownError","args":["one",2]}})";
    }
    file << '}';
  }
  file << '}';
}

void BareParse(benchmark::State& state) {
  WriteTaskFile(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    std::ifstream file(kPath, std::ios::binary | std::ios::ate);
    std::string text(static_cast<std::size_t>(file.tellg()), '\0');
    file.seekg(0).read(text.data(), static_cast<std::streamsize>(text.size()));
    rapidjson::Document document;
    document.Parse(text.data(), text.size());
    benchmark::DoNotOptimize(document.MemberCount());
  }
}

void GetTasks(benchmark::State& state) {
  WriteTaskFile(static_cast<int>(state.range(0)));
  const LifeCycle::TaskFile file(kPath, LifeCycle::TaskFile::Initialise::kNever);
  for (auto _ : state) benchmark::DoNotOptimize(file.GetTasks(5));
}

void SetProgress(benchmark::State& state) {
  WriteTaskFile(static_cast<int>(state.range(0)));
  LifeCycle::TaskFile file(kPath, LifeCycle::TaskFile::Initialise::kNever);
  const std::string running = Identifier(static_cast<int>(state.range(0)) - 1);
  unsigned percent = 0;
  for (auto _ : state) file.SetProgress(running, ++percent % 101, 5);
}

BENCHMARK(BareParse)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(GetTasks)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(SetProgress)
    ->Arg(10)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
