#include "filter/host_input_filter.h"

#include <optional>
#include <string>
#include <utility>

#include "configuration/messages/api_errors.h"
#include "orbi/std/errors.h"
#include "tesselibs/log.h"

namespace Host::Settings::SettingsApi::Filter {
namespace {

constexpr const char* kLocalHost = "localhost";

/// What the value is when it is set, through however many optionals; nullptr when it is not.
const Orbi::Data::Value* Unwrap(const Orbi::Data::Value* value) {
  while (value) {
    const auto* const optional = value->As<Orbi::Data::Optional>();
    if (!optional) break;
    value = optional->value.get();
  }
  return value && !value->As<Orbi::Data::Void>() ? value : nullptr;
}

/// The given host as text, or nothing when the input gives none. What is not a string is no host,
/// so that its type's name stands for it.
std::optional<std::string> FindHost(const Orbi::Data::Value& input) {
  const Orbi::Data::Value* const fields = Unwrap(&input);
  const auto* const structure = fields ? fields->As<Orbi::Data::Structure>() : nullptr;
  const Orbi::Data::Value* const host = structure ? Unwrap(structure->Find("host")) : nullptr;
  if (!host) return std::nullopt;
  const auto* const text = host->As<std::string>();
  return text ? *text : std::string(host->TypeName());
}

}  // namespace

HostInputFilter::HostInputFilter(Orbi::Core::AsyncApiProviderPtr next,
                                 std::set<Orbi::Core::MethodIdentifier> methods)
    : next_(std::move(next)), methods_(std::move(methods)) {}

void HostInputFilter::Invoke(const Orbi::Core::MethodIdentifier& method, Orbi::Data::Value input,
                             Orbi::Core::ExecutionContextPtr context,
                             Orbi::Core::MethodCompletion completion) {
  if (methods_.contains(method)) {
    Log_Level(LogLevel::kNotice, "Checking the host parameter value for method:%s and service:%s\n",
              method.ToText().c_str(), method.service.c_str());
    const std::optional<std::string> host = FindHost(input);
    if (host && *host != kLocalHost) {
      Log_Level(LogLevel::kCritical, "Host parameter value is:%s. It should be:%s\n", host->c_str(),
                kLocalHost);
      completion(Orbi::Core::MethodResult::Error(
          LifeCycle::ApiError(Com::Tessel::Orbi::Std::Errors::InvalidArgument,
                              "com.tessel.ryx.host.invalid", {*host, kLocalHost})));
      return;
    }
  }
  next_->Invoke(method, std::move(input), std::move(context), std::move(completion));
}

}  // namespace Host::Settings::SettingsApi::Filter
