#include "software/installed_software_services.h"

#include <rapidjson/document.h>

#include <utility>

#include "lifecycle/complete_operation.h"
#include "software/helper_call.h"
#include "software/helper_task.h"
#include "tesselibs/log.h"

using namespace ::LifeCycle;
using namespace ::LifeCycle::HelperOperations;
using ::Orbi::Core::AsyncResult;
using ::Orbi::Core::ExecutionContextPtr;

namespace {

void LogCall(const char* operation) {
  Log_Level(LogLevel::kNotice, "Calling function: %s\n", operation);
}

/// The error for output of a helper that ended well and yet did not print what it should have.
OperationError UselessOutput() { return OperationError(CommandFailed("0")); }

}  // namespace

namespace Com::Tessel::Ryx::Software::InstalledComponentsSvc {
namespace {

using Components = std::map<std::string, InstalledComponentInfo>;

/// @throws OperationError  unless `element` is an object that has the member, a string
std::string Member(const rapidjson::Value& element, const char* name) {
  if (element.IsObject()) {
    const auto member = element.FindMember(name);
    if (member != element.MemberEnd() && member->value.IsString())
      return {member->value.GetString(), member->value.GetStringLength()};
  }
  Log_Level(LogLevel::kCritical, "[%s]: A component has no text \"%s\"\n",
            kListInstalledComponents.name, name);
  throw UselessOutput();
}

Components ReadComponents(const std::string& output) {
  rapidjson::Document document;
  // Iterative, so that no nesting of brackets can exhaust the stack.
  document.Parse<rapidjson::kParseIterativeFlag>(output.data(), output.size());
  if (document.HasParseError() || !document.IsArray()) {
    Log_Level(LogLevel::kCritical, "[%s]: The components are not a JSON array\n",
              kListInstalledComponents.name);
    throw UselessOutput();
  }
  Components components;
  for (const rapidjson::Value& element : document.GetArray()) {
    InstalledComponentInfo info;
    info.display_version = Member(element, "display_version");
    info.version = Member(element, "version");
    info.display_name = Member(element, "display_name");
    components.insert_or_assign(Member(element, "component"), std::move(info));
  }
  return components;
}

}  // namespace

void AsyncServiceImpl::List(const ExecutionContextPtr&, const ListInput&,
                            AsyncResult<Components> result) {
  LogCall(kListInstalledComponents.name);
  CompleteOperation(kListInstalledComponents.name, result,
                    [] { return ReadComponents(AskHelper(kListInstalledComponents)); });
}

}  // namespace Com::Tessel::Ryx::Software::InstalledComponentsSvc

namespace Com::Tessel::Ryx::Software::InstalledImageSvc {
namespace {

constexpr TaskOperation kExtractDepot{"ExtractDepot", "depots --extract --task-id {1}"};

ValuePtr ReadImage(const std::string& output) {
  Log_Level(LogLevel::kNotice, "Serialized string : %s\n", output.c_str());
  try {
    return JsonToValue(output);
  } catch (const OrbiJsonSerializationError& e) {
    Log_Level(LogLevel::kCritical, "[%s]: Can't deserialize json. Exception : %s\n",
              kGetInstalledImage.name, e.what());
    throw UselessOutput();
  }
}

}  // namespace

void AsyncServiceImpl::Get(const ExecutionContextPtr&, const GetInput&, AsyncResult<Info> result) {
  LogCall(kGetInstalledImage.name);
  CompleteOperation(kGetInstalledImage.name, result, [] {
    const auto image = ReadImage(AskHelper(kGetInstalledImage));
    return AdaptOutput<Info>(kGetInstalledImage, *image);
  });
}

void AsyncServiceImpl::ExtractDepot(const ExecutionContextPtr& context, const ExtractDepotInput&,
                                    AsyncResult<std::string> result) {
  LogCall(kExtractDepot.name);
  CompleteOperation(kExtractDepot.name, result, [&context] {
    std::string id = NewTaskId(kExtractDepot);
    StartHelperTask(*context, kExtractDepot, id);
    return id;
  });
}

}  // namespace Com::Tessel::Ryx::Software::InstalledImageSvc

namespace Com::Tessel::Ryx::Software::InstalledPaxsSvc {
namespace {

ValuePtr ReadPaxs(const HelperOperation& operation, const std::string& output) {
  try {
    return JsonToValue(output);
  } catch (const OrbiJsonSerializationError& e) {
    Log_Level(LogLevel::kCritical, "[%s]: %s\n", operation.name, e.what());
    Log_Level(LogLevel::kCritical, "[%s]: Can't deserialize json\n", operation.name);
    throw UselessOutput();
  }
}

}  // namespace

void AsyncServiceImpl::List(const ExecutionContextPtr&, const ListInput& input,
                            AsyncResult<std::vector<PaxInfo>> result) {
  const bool onlyOrphans = input.filter && input.filter->orphan.value_or(false);
  const HelperOperation& operation = onlyOrphans ? kListOrphanPaxs : kListAllPaxs;
  LogCall(operation.name);
  CompleteOperation(operation.name, result, [&operation] {
    const auto paxs = ReadPaxs(operation, AskHelper(operation));
    return AdaptOutput<std::vector<PaxInfo>>(operation, *paxs);
  });
}

}  // namespace Com::Tessel::Ryx::Software::InstalledPaxsSvc
