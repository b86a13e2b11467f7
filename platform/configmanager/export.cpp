#include "configmanager/config_manager.h"
#include "configmanager/current_configuration.h"
#include "configmanager/document_builder.h"
#include "configmanager/plan.h"

namespace RyxConfigManager {

std::string ExportDocument() {
  const auto modules = InstalledModules();
  const CurrentConfiguration current(*RyxConfigStore::Store::FromPath(), AllModules(*modules),
                                     TaskProgress(nullptr));
  DocumentBuilder document;
  for (const ModuleState& module : current.modules()) {
    for (const KeyState& key : module.keys) {
      // What a document without the key would change has to be in it.
      if (PlanKey(key, nullptr)) document.Add(*key.key, key.effective);
    }
  }
  return document.Finish(GetBIOSUUID());
}

}  // namespace RyxConfigManager
