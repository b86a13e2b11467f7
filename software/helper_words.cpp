#include "software/helper_words.h"

#include <rapidjson/document.h>

#include <sstream>
#include <utility>

#include "configuration/messages/api_errors.h"
#include "software/command/run_command.h"
#include "tesselibs/json_document.h"
#include "tesselibs/utf8.h"

namespace LifeCycle {
namespace {

using JsonDocument::FindMember;
using JsonDocument::TextOf;
using rapidjson::Value;

constexpr std::size_t kMostMessages = 32;
constexpr std::size_t kLongestReason = 1000;  // bytes

using Messages = std::vector<Orbi::Data::LocalizableMessage>;

void ReadMessage(const Value& message, Messages& words) {
  const std::string_view id = TextOf(FindMember(message, "id"));
  if (id.empty() || words.size() == kMostMessages) return;
  std::vector<std::string> args;
  const Value* const list = FindMember(message, "args");
  if (list != nullptr && list->IsArray()) {
    for (const Value& arg : list->GetArray()) args.emplace_back(TextOf(&arg));
  }
  words.push_back(ApiMessage(std::string(id), std::move(args)));
}

void ReadSequence(std::string json, Messages& words) {
  rapidjson::Document document;
  const auto result = JsonDocument::ParseInPlace(json, document, 8, JsonDocument::Strings::kUtf8);
  if (result.IsError()) return;
  const Value* const messages = FindMember(document, "messages");
  if (messages == nullptr || !messages->IsArray()) return;
  for (const Value& message : messages->GetArray()) ReadMessage(message, words);
}

}  // namespace

std::vector<Orbi::Data::LocalizableMessage> ReadHelperWords(const std::string& errors) {
  Messages words;
  std::string last;
  std::istringstream lines(errors);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty()) continue;
    if (line[0] == kForPrograms)
      ReadSequence(line.substr(1), words);
    else
      last = std::move(line);
  }
  if (words.empty() && !last.empty() && last.size() <= kLongestReason && Utf8::IsValid(last))
    words.push_back(ApiMessage("com.tessel.ryx.host_settings.command.reason", {last}));
  return words;
}

}  // namespace LifeCycle
