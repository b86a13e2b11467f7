#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "lifecycle/paths.h"
#include "lifecycle/testing/call_operation.h"
#include "orbi/core/local_provider.h"
#include "software/depots_service.h"
#include "software/desired_software_services.h"
#include "software/host_apply_service.h"
#include "software/host_software_services.h"
#include "software/installed_software_services.h"
#include "software/software_tasks.h"
#include "tesselibs/testing/captured_log.h"

namespace LifeCycle {

inline const std::string kTaskDirectory = "/var/tessel/lifecycle";

/// What the fake interpreter does when it is started.
struct Behaviour {
  std::string output = "";
  bool readsInput = false;  ///< to its end, before it exits
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The words, each in brackets, that a helper gets for the text behind the script's path.
inline std::string WordsOf(
    const std::string& arguments,
    const std::string& script = "/usr/lib/tessel/lifecycle/bin/imagemanagerctl.py") {
  std::istringstream words(arguments);
  std::string all = "[" + script + "]";
  for (std::string word; words >> word;) all += "[" + word + "]";
  return all;
}

/// Calls the software services through their bindings, with a fake in place of the interpreter, at
/// the interpreter's real path, and with the log kept. For a sandboxed host.
class ServiceFixture : public testing::Test {
 protected:
  ServiceFixture() {
    signal(SIGPIPE, SIG_IGN);  // as in the daemon
    namespace Ryx = Com::Tessel::Ryx;
#define BIND(service)                                        \
  service::AsyncServiceBinder::BindImplementation(provider_, \
                                                  std::make_shared<service::AsyncServiceImpl>())
    BIND(Ryx::HostSettings::DepotsSvc);
    BIND(Ryx::HostSettings::SoftwareSvc);
    BIND(Ryx::HostSettings::Software::RyxSvc);
    BIND(Ryx::HostSettings::Software::ComponentsSvc);
    BIND(Ryx::Hosts::Software::RyxSvc);
    BIND(Ryx::Hosts::Software::ComponentsSvc);
    BIND(Ryx::Hosts::SettingsSvc);
    BIND(Ryx::KestrelDaemon::SoftwareSvc);
    BIND(Ryx::KestrelDaemon::ComponentsSvc);
    BIND(Ryx::KestrelDaemon::SolutionsSvc);
    BIND(Ryx::Software::InstalledComponentsSvc);
    BIND(Ryx::Software::InstalledImageSvc);
    BIND(Ryx::Software::InstalledPaxsSvc);
#undef BIND
    std::filesystem::rename(interpreter_, interpreter_ + ".saved");
    ForgetTasks();
  }
  ~ServiceFixture() override {
    std::filesystem::rename(interpreter_ + ".saved", interpreter_);
    ForgetTasks();
  }

  static void ForgetTasks() {
    std::error_code error;
    do {  // again when the end of an earlier test's helper is recorded meanwhile
      std::filesystem::remove_all(kTaskDirectory, error);
    } while (error == std::errc::directory_not_empty);
    EXPECT_FALSE(error) << error.message();
    std::filesystem::remove_all(kScanDocument);
  }
  /// The names and contents of the files in the tasks' directory, a line for each.
  static std::string TaskFiles() {
    std::set<std::string> lines;
    for (const auto& file : std::filesystem::directory_iterator(kTaskDirectory)) {
      if (file.path() != LifeCycle::kLockFile)
        lines.insert(file.path().filename().string() + " " + ReadFile(file.path()) + "\n");
    }
    return std::accumulate(lines.begin(), lines.end(), std::string());
  }

  /// Puts the fake in place and forgets what was recorded.
  void Behave(const Behaviour& behaviour) {
    Vanish();
    std::filesystem::create_directories(records_);
    std::ofstream(records_ + "/output") << behaviour.output;
    std::ofstream script(interpreter_);
    // The words come last: who has seen them finds everything else done, too.
    script << "#!/bin/sh -e\ncd " << records_ << "\n"
           << (behaviour.readsInput ? "cat >input\n" : "")
           << "cat output\nprintf '[%s]' \"$@\" >words.new\nmv words.new words\n";
    script.close();
    std::filesystem::permissions(interpreter_, std::filesystem::perms::owner_all);
  }

  /// Takes the fake away: helpers cannot be started any more.
  void Vanish() {
    std::filesystem::remove(interpreter_);
    std::filesystem::remove_all(records_);
  }

  /// As CallOperation; the identifiers stand without "com.tessel.ryx.".
  std::string Call(const std::string& call, const std::string& input) {
    return CallOperation(provider_, "com.tessel.ryx." + call, input);
  }

  /// The words that the interpreter got, each in brackets; waits for a detached helper.
  [[nodiscard]] std::string HelperWords() const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const std::string words = records_ + "/words";
    while (!std::filesystem::exists(words) && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return ReadFile(words);
  }
  [[nodiscard]] std::string HelperInput() const { return ReadFile(records_ + "/input"); }

  CapturedLog log_;

 private:
  const std::string interpreter_ = "/usr/bin/python";
  const std::string records_ = "/var/tmp/fake-helper";
  Orbi::Core::AsyncLocalProvider provider_;
};

}  // namespace LifeCycle
