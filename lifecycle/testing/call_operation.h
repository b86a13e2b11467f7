#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "configuration/messages/api_errors.h"
#include "orbi/core/local_provider.h"
#include "orbi/data/message.h"
#include "orbi/json/reader.h"
#include "orbi/json/writer.h"

namespace LifeCycle {

/// The error's type and, for each message, its identifier without "com.tessel.ryx." and its
/// arguments: "not_found a.b(x)". The message's text follows unless it is the identifier's own.
inline std::string ErrorText(const Orbi::Data::ErrorValue& error) {
  const std::string common = "com.tessel.ryx.";
  std::string text = error.id.substr(error.id.rfind('.') + 1);
  for (const auto& item : error.Find("messages")->As<Orbi::Data::List>()->items) {
    const auto message = *Orbi::Data::LocalizableMessage::FromValue(item);
    text += " " + message.id.substr(message.id.starts_with(common) ? common.size() : 0);
    for (const std::string& argument : message.args) text += "(" + argument + ")";
    if (message != ApiMessage(message.id, message.args)) text += " " + message.default_message;
  }
  return text;
}

/// Calls an operation of a bound service, which must complete exactly once.
/// @param call  "com.tessel.ryx.host_settings.depots create"
/// @param input  the fields as clean JSON
/// @return the output as clean JSON, or the error's text
inline std::string CallOperation(Orbi::Core::AsyncLocalProvider& provider, const std::string& call,
                                 const std::string& input) {
  using namespace Orbi::Protocol::Json;
  const std::string::size_type blank = call.find(' ');
  Orbi::Data::ErrorValue error;
  std::vector<Orbi::Core::MethodResult> results;
  provider.Invoke({call.substr(0, blank), call.substr(blank + 1)},
                  JsonDirectDataDeserializer().Deserialize(input, error).value(),
                  std::make_shared<Orbi::Core::ExecutionContext>(),
                  Orbi::Core::MethodCompletion([&results](Orbi::Core::MethodResult result) {
                    results.push_back(std::move(result));
                  }));
  if (results.size() != 1) return "not completed once";
  if (results[0].error) return ErrorText(*results[0].error);
  return JsonDirectDataSerializer(Secrets::kWritten).Serialize(results[0].output.value());
}

}  // namespace LifeCycle
