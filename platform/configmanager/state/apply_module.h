#pragma once

#include <span>
#include <vector>

#include "configmanager/results.h"
#include "configmanager/state/plan.h"
#include "configmanager/task_input.h"
#include "configstore/store.h"

namespace RyxConfigManager {

/// Which part of a module's plan is carried out: something that others still refer to has to be
/// deleted after them.
enum class PlanPart { kAll, kValues, kDeletions };

/// The caller has the turn to change (change_turn.h). Has the module carry out its plan, then
/// stores what is desired, in one transaction.
///
/// A crash between the two leaves something effective that is not stored. The next plan has it as a
/// change, or as adopted, and so it is done again and stored.
/// @return why the module failed, in which case nothing is stored; empty when it did not
/// @throws Aborted
/// @throws RyxConfigStore::ConfigStoreException  it cannot be stored; the module was asked to
///         bring back what was effective
[[nodiscard]] std::vector<ErrorInfo> ApplyModule(const ModulePlan& plan, PlanPart part,
                                                 RyxConfigStore::Store& store,
                                                 const TaskInput* task);

}  // namespace RyxConfigManager
