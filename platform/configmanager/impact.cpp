#include <memory>
#include <stdexcept>
#include <utility>

#include "configmanager/config_manager.h"
#include "configmanager/document/violation_place.h"
#include "configmanager/state/assessment.h"
#include "tesselibs/uuid.h"

namespace RyxConfigManager {

void Impact(const Document& document, ImpactResult& result, const TaskInput* task) {
  Assessment assessment = Assess(document.merged(), TaskProgress(task));
  result = std::move(assessment.impact);
  LocateErrors(result.errors, *assessment.modules, document.root(), GetBIOSUUID());
}

std::shared_ptr<CheckApplyResult> CheckApply(Document document, const TaskInput* task) {
  Assessment assessment = Assess(document.merged(), TaskProgress(task));
  auto id = UUID_CreateRandom();
  if (!id) throw std::runtime_error("The system has no random numbers for a specification's id.");
  auto result = std::make_shared<CheckApplyResult>();
  result->specId = *std::move(id);
  result->impacts = std::move(assessment.impact.impacts);
  result->errors = std::move(assessment.impact.errors);
  LocateErrors(result->errors, *assessment.modules, document.root(), GetBIOSUUID());
  result->digest = assessment.current.Digest();
  result->document = std::move(document);
  return result;
}

}  // namespace RyxConfigManager
