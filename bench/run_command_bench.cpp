// Running a helper inline beside the bare command. Runs inside a sandboxed host with the helpers
// installed.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "software/command/run_command.h"

namespace {

constexpr const char* kScript = "/usr/lib/tessel/lifecycle/bin/imagemanagerctl.py";

/// What any program would do to have a command's output: a pipe, a child, read to the end, wait.
std::string RunBare(const char* const* arguments) {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, ends[0]);
  posix_spawn_file_actions_addclose(&actions, ends[1]);
  pid_t child = 0;
  if (posix_spawn(&child, arguments[0], &actions, nullptr, const_cast<char* const*>(arguments),
                  environ) != 0) {
    std::abort();
  }
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  std::string output;
  char buffer[4096];
  for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) > 0;)
    output.append(buffer, static_cast<std::size_t>(got));
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return output;
}

void BareInterpreter(benchmark::State& state) {
  const char* const arguments[] = {"/usr/bin/python", "-c", "pass", nullptr};
  for (auto _ : state) benchmark::DoNotOptimize(RunBare(arguments));
}

void BareHelper(benchmark::State& state) {
  const char* const arguments[] = {"/usr/bin/python", kScript, "depots", "--list", nullptr};
  for (auto _ : state) benchmark::DoNotOptimize(RunBare(arguments));
}

void HelperThroughRunCommand(benchmark::State& state) {
  const std::string command =
      std::string("/usr/bin/python ++group=kestreld-nontask-forks,mem=110,stats ") + kScript +
      " depots --list ";
  for (auto _ : state) {
    std::string output;
    const auto result = LifeCycle::RunCommand(command, nullptr, &output);
    if (result.kind != 0) state.SkipWithError("the helper failed");
  }
}

// In turns, so that a machine that changes its speed changes it for all three.
BENCHMARK(BareInterpreter)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BareHelper)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(HelperThroughRunCommand)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
