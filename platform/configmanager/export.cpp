#include <chrono>
#include <utility>

#include "configmanager/config_manager.h"
#include "configmanager/document/document_builder.h"
#include "configmanager/module/installed_modules.h"
#include "configmanager/state/current_configuration.h"
#include "configmanager/state/plan.h"
#include "pcore/foreground.h"

namespace RyxConfigManager {

namespace {

/// A client waits for the document, and others behind it.
constexpr std::chrono::seconds kTimeLimit{30};

}  // namespace

std::string ExportDocument(const TaskInput* task) {
  const auto deadline = std::chrono::steady_clock::now() + kTimeLimit;
  TaskInput limit = task == nullptr ? TaskInput() : *task;
  limit.isAbortRequested = [deadline, isAborted = std::move(limit.isAbortRequested)] {
    return std::chrono::steady_clock::now() > deadline || (isAborted && isAborted()) ||
           PcoreCtl::IsForegroundEnding();
  };
  const auto modules = InstalledModules();
  const CurrentConfiguration current(*RyxConfigStore::Store::FromPath(), AllModules(*modules),
                                     TaskProgress(&limit));
  DocumentBuilder document;
  for (const ModuleState& module : current.modules()) {
    for (const KeyState& key : module.keys) {
      // What a document without the key would change has to be in it.
      if (PlanKey(key, nullptr)) document.Add(*key.key, key.effective);
    }
  }
  return std::move(document).Finish(GetBIOSUUID()).ToText();
}

}  // namespace RyxConfigManager
