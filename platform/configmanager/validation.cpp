#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "configmanager/config_manager.h"
#include "configmanager/document/document_check.h"
#include "configmanager/document/document_merge.h"
#include "configmanager/document/host_identity.h"
#include "configmanager/document/violation_place.h"
#include "configmanager/module/installed_modules.h"
#include "configmanager/module/plugin.h"
#include "configmanager/schema/violations.h"
#include "configmanager/state/current_configuration.h"
#include "configmanager/state/plan.h"
#include "configmanager/task_progress.h"
#include "configstore/store.h"
#include "tesselibs/log.h"

namespace RyxConfigManager {
namespace {

void AskValidator(const ModulePlan& plan, ValidationResult& result, const TaskInput* task) {
  const std::vector<Change> changes = plan.Changes();
  if (changes.empty()) return;
  PluginAnswer answer = RunPlugin(*plan.state->module, PluginOperation::kValidate, changes, task);
  std::move(answer.errors.begin(), answer.errors.end(), std::back_inserter(result.errors));
  if (!answer.failure) return;
  if (!result.pluginFailure.empty()) result.pluginFailure += "; ";
  result.pluginFailure += answer.failure->reason;
  result.pluginErrors.push_back(*std::move(answer.failure));
}

/// Has the modules judge what would change. What a module cannot read does not matter for that:
/// what was stored is taken for it.
void AskValidators(const Document& document, const ModuleSet& modules, ValidationResult& result,
                   const TaskProgress& progress) {
  std::vector<const Module*> judges = AllModules(modules);
  std::erase_if(judges, [](const Module* module) { return module->executables.validate.empty(); });
  const CurrentConfiguration current(*RyxConfigStore::Store::FromPath(), judges,
                                     progress.Share(0, 60));
  const std::vector<ModulePlan> plans = MakePlan(current, document.merged());
  const TaskProgress asking = progress.Share(60, 100);
  for (std::size_t done = 0; const ModulePlan& plan : plans) {
    asking.Report(done++, plans.size());
    AskValidator(plan, result, progress.task());
  }
}

}  // namespace

std::string GetBIOSUUID() {
  return HostIdentity("/sys/class/dmi/id/product_uuid", "/etc/machine-id");
}

HostDocumentSchema GenerateHostDocumentSchema(const Document&) { return InstalledModules(); }

void CreateMergedDocument(const HostDocumentSchema& schema, Document& document) {
  MergeDocument(*schema, GetBIOSUUID(), document);
}

void Validate(const Document& document, const HostDocumentSchema& schema, ValidationResult& result,
              bool schemaOnly, const TaskInput* task) {
  const TaskProgress progress(task);
  Violations violations;
  CheckDocument(document, *schema, GetBIOSUUID(), violations);
  result.moreErrors = violations.uncollected();
  if (result.moreErrors != 0)
    Log_Level(LogLevel::kError,
              "A configuration document has %zu more violations than are reported.\n",
              result.moreErrors);
  result.errors = violations.Take();
  progress.Report(1, 10);
  if (!schemaOnly && result.errors.empty())
    AskValidators(document, *schema, result, progress.Share(10, 100));
  LocateErrors(result.errors, *schema, document.root(), GetBIOSUUID());
  progress.Report(1, 1);
}

}  // namespace RyxConfigManager
