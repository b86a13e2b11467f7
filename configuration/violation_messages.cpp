#include "configuration/violation_messages.h"

#include <cstddef>
#include <string>
#include <utility>

#include "configmanager/exceptions.h"
#include "configuration/messages/api_errors.h"
#include "configuration/messages/config_manager_messages.h"

namespace LifeCycle {
namespace {

using Orbi::Data::LocalizableMessage;
using RyxConfigManager::ErrorInfo;

constexpr std::size_t kMostPlaces = std::size_t{64} << 10;  // bytes

LocalizableMessage PlaceOf(const ErrorInfo& error) {
  const auto& [component, group, key] = error.address;
  return ApiMessage("com.tessel.ryx.settings.place",
                    {error.path, ToMessage(error).default_message, error.id, component, group, key,
                     error.instance});
}

LocalizableMessage Reason(std::string text) {
  return ApiMessage("com.tessel.ryx.settings.reason", {std::move(text)});
}

}  // namespace

LocalizableMessage ToMessage(const ErrorInfo& error) {
  return ConfigManagerMessage(error.id, error.args);
}

std::vector<LocalizableMessage> ToMessages(std::span<const ErrorInfo> errors) {
  std::vector<LocalizableMessage> messages;
  for (const ErrorInfo& error : errors) messages.push_back(ToMessage(error));
  AppendPlaces(errors, messages);
  return messages;
}

void AppendPlaces(std::span<const ErrorInfo> errors, std::vector<LocalizableMessage>& messages) {
  std::size_t size = 0;
  for (const ErrorInfo& error : errors) {
    if (size > kMostPlaces) return;
    if (!error.path.empty()) messages.push_back(PlaceOf(error));
    if (!error.reason.empty()) messages.push_back(Reason(error.reason));
    size += messages.empty() ? 0 : messages.back().default_message.size() + error.path.size();
  }
}

std::vector<LocalizableMessage> DetailsOf(const std::exception& failure) {
  if (dynamic_cast<const RyxConfigManager::HostNotInMM*>(&failure) != nullptr) {
    return {ApiMessage("com.tessel.ryx.kestrel_daemon.configuration.apply.host_not_in_mm.error"),
            ApiMessage("com.tessel.ryx.kestrel_daemon.configuration.apply.enter_mm")};
  }
  const auto* const detailed = dynamic_cast<const RyxConfigManager::Detailed*>(&failure);
  if (detailed != nullptr && !detailed->details().empty()) return ToMessages(detailed->details());
  return {Reason(failure.what())};
}

}  // namespace LifeCycle
