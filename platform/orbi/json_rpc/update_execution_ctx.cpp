#include "orbi/json_rpc/update_execution_ctx.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "orbi/l10n/errors.h"
#include "orbi/l10n/localizer.h"
#include "tesselibs/ascii.h"

namespace Orbi::Provider::JsonRpc1_1 {
namespace {

using Transport::PicoHttp::HeaderField;
using Headers = std::span<const HeaderField>;

/// Entries whose names have upper-case letters, which those of headers cannot have.
constexpr std::string_view kMixedCaseEntries[] = {"opId"};

Headers Named(Headers headers, std::string_view name) {
  const auto first = std::ranges::lower_bound(headers, name, {}, &HeaderField::name);
  return {first, std::find_if(first, headers.end(),
                              [&](const HeaderField& header) { return header.name != name; })};
}

bool Contradict(Headers headers, std::string_view name, std::string_view payload) {
  return std::ranges::any_of(Named(headers, name),
                             [&](const HeaderField& header) { return header.value != payload; });
}

void AddEntries(Headers headers, std::map<std::string, std::string>& application) {
  constexpr std::string_view kPrefix = "orbi-ctx-";
  auto header = std::ranges::lower_bound(headers, kPrefix, {}, &HeaderField::name);
  for (; header != headers.end() && header->name.starts_with(kPrefix); ++header) {
    std::string_view name = header->name.substr(kPrefix.size());
    for (const std::string_view entry : kMixedCaseEntries) {
      if (Ascii::EqualsIgnoringCase(entry, name)) name = entry;
    }
    const bool there = std::ranges::any_of(application, [&](const auto& entry) {
      return Ascii::EqualsIgnoringCase(entry.first, name);
    });
    if (!there && !name.empty()) application.emplace(name, header->value);
  }
}

/// "Etc/GMT+2", "America/Argentina/Buenos_Aires".
bool IsTimeZoneName(std::string_view text) {
  constexpr std::size_t kLongest = 64;
  return !text.empty() && text.size() <= kLongest && std::ranges::all_of(text, [](char c) {
    return (Ascii::ToLower(c) >= 'a' && Ascii::ToLower(c) <= 'z') || (c >= '0' && c <= '9') ||
           c == '/' || c == '_' || c == '-' || c == '+';
  });
}

}  // namespace

std::optional<Protocol::Json::ProtocolError> UpdateExecutionCtxHelper::Update(
    Headers headers, const Core::MethodIdentifier& method, Core::ExecutionContext& context,
    boost::system::error_code& localization) {
  localization.clear();
  if (Contradict(headers, "orbi-service", method.service) ||
      Contradict(headers, "orbi-operation", method.operation)) {
    return Protocol::Json::ProtocolError{
        Protocol::Json::ProtocolErrorCode::kInvalidParams,
        "Mismatching operation identifier in HTTP header and payload"};
  }
  AddEntries(headers, context.application);

  if (const auto language = Named(headers, "accept-language"); !language.empty()) {
    context.localization.language = L10n::PreferredLocale(language.front().value, localization);
  }
  if (const auto entry = context.application.find("format-locale");
      entry != context.application.end()) {
    if (L10n::IsLocaleName(entry->second)) {
      context.localization.formatLocale = entry->second;
    } else {
      localization = L10n::LocalizationError::kIncorrectHeader;
    }
  }
  if (const auto entry = context.application.find("timezone");
      entry != context.application.end() && IsTimeZoneName(entry->second)) {
    context.localization.timeZone = entry->second;
  }
  return std::nullopt;
}

}  // namespace Orbi::Provider::JsonRpc1_1
