#pragma once

#include <memory>
#include <string>

#include "configmanager/exceptions.h"
#include "configmanager/results.h"
#include "configmanager/task_input.h"
#include "configstore/document.h"

/// The configuration manager: checks configuration documents against what the host's modules know,
/// and brings the host to them.
///
/// A document tells the whole configuration: a key that it does not name has its default. What is
/// compared with it is the effective configuration, which modules read from the system itself, so
/// that changes made behind the manager's back are seen.
///
/// Functions may be called from any thread, several at once. What they share guards itself: the
/// modules that were read last and the store's handle each have a mutex, and those that change the
/// configuration (Apply, SetConfig, DeleteConfig) wait for each other (state/change_turn.h). The
/// others wait for nobody: while the configuration changes, they see of each module and of the
/// store what it was before or what it is after, and may have a module's program run beside
/// another.
///
/// A task input may be nullptr. Whoever has to end an operation, as when the process stops, hands
/// one in whose isAbortRequested then answers true: within 50 ms a program that runs is asked to
/// end and a second later it is killed, and the operation throws Aborted. Without one, a program is
/// ended at its module's time limit only.
///
/// Functions throw InvalidArgumentException, ConfigManagerException,
/// RyxConfigStore::ConfigStoreException, and Aborted. A module that fails is never an exception: it
/// is reported with a message of its own.
namespace RyxConfigManager {

class ModuleSet;
using ConfigStoreDocument::Document;

/// The schema that documents for this host are held to: its modules as they are installed when it
/// is made, which it keeps. Immutable.
using HostDocumentSchema = std::shared_ptr<const ModuleSet>;

/// @param document  whose components it is for; the schema is the host's, whatever they are
[[nodiscard]] HostDocumentSchema GenerateHostDocumentSchema(const Document& document);

/// Lays this host's "host-specific" part over the document's profile, property by property.
void CreateMergedDocument(const HostDocumentSchema& schema, Document& document);

/// Collects every violation in a merged document, then asks the modules' validators unless the
/// schema has already refused it.
/// @param schemaOnly  leaves the modules' validators out
/// @throws ConfigManagerException  kEmptyDocument: the document names no key, and nothing else is
/// wrong
void Validate(const Document& document, const HostDocumentSchema& schema, ValidationResult& result,
              bool schemaOnly, const TaskInput* task);

/// What applying a valid, merged document would do, prepared to be applied.
/// @param document  is kept in the result
[[nodiscard]] std::shared_ptr<CheckApplyResult> CheckApply(Document document,
                                                           const TaskInput* task);

/// Applies what was checked, module by module. A module that fails is reported, keeps its old
/// configuration, and does not keep the others from being applied, but for those that are to refer
/// to it: they fail, too.
/// @throws InvalidImpact  the impact is no longer what was checked
/// @throws HostNotInMM    it needs maintenance mode and the host is not in it
[[nodiscard]] ApplyResult Apply(const std::shared_ptr<CheckApplyResult>& checked,
                                const TaskInput* task);

/// What applying a valid, merged document would do.
void Impact(const Document& document, ImpactResult& result, const TaskInput* task);

/// Compares the effective configuration with a valid, merged document, setting by setting.
void CheckCompliance(const Document& document, ComplianceResult& result, const TaskInput* task);

/// The host's configuration as a document, JSON text.
/// @throws Aborted  the modules took more than 30 seconds to tell it, the task is to end, or this
///         process (pcore/foreground.h): this is no task, but a client waits for it
[[nodiscard]] std::string ExportDocument(const TaskInput* task = nullptr);

/// One key, with the same checks and modules as a document.
/// @param value  JSON text: an object; for a key with instances one with the member "instances",
///               the list of all of them
void SetConfig(const std::string& component, const std::string& group, const std::string& key,
               const std::string& value, const TaskInput* task);
/// Takes back what was set; the default holds again.
void DeleteConfig(const std::string& component, const std::string& group, const std::string& key,
                  const TaskInput* task);
/// @return what was set, in SetConfig's form; empty when nothing was
[[nodiscard]] std::string GetCurrentConfig(const std::string& component, const std::string& group,
                                           const std::string& key);

/// The host's identifier in documents: the product UUID of its firmware, else one derived from its
/// machine id. Lower case.
[[nodiscard]] std::string GetBIOSUUID();

}  // namespace RyxConfigManager
