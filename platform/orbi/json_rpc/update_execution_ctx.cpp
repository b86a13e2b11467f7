#include "orbi/json_rpc/update_execution_ctx.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orbi/l10n/errors.h"
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

/// The names of the entries that the payload has, without letter case, sorted.
std::vector<std::string> FoldedNames(const std::map<std::string, std::string>& application) {
  std::vector<std::string> names;
  names.reserve(application.size());
  for (const auto& [name, value] : application) {
    std::ranges::transform(name, std::back_inserter(names.emplace_back()), Ascii::ToLower);
  }
  std::ranges::sort(names);
  return names;
}

/// @return false when there are too many
bool AddEntries(Headers headers, std::map<std::string, std::string>& application) {
  constexpr std::string_view kPrefix = "orbi-ctx-";
  auto header = std::ranges::lower_bound(headers, kPrefix, {}, &HeaderField::name);
  if (header == headers.end() || !header->name.starts_with(kPrefix)) return true;
  const std::vector<std::string> given = FoldedNames(application);
  std::string_view before;
  for (; header != headers.end() && header->name.starts_with(kPrefix); ++header) {
    std::string_view name = header->name.substr(kPrefix.size());
    // Of headers with one name, which stand together, the first counts.
    if (name == std::exchange(before, name) || std::ranges::binary_search(given, name)) continue;
    if (application.size() == Core::kMaxApplicationEntries) return false;
    for (const std::string_view entry : kMixedCaseEntries) {
      if (Ascii::EqualsIgnoringCase(entry, name)) name = entry;
    }
    application.emplace(name, header->value);
  }
  return true;
}

/// "Etc/GMT+2", "America/Argentina/Buenos_Aires".
bool IsTimeZoneName(std::string_view text) {
  constexpr std::size_t kLongest = 64;
  return !text.empty() && text.size() <= kLongest && std::ranges::all_of(text, [](char c) {
    return (Ascii::ToLower(c) >= 'a' && Ascii::ToLower(c) <= 'z') || (c >= '0' && c <= '9') ||
           c == '/' || c == '_' || c == '-' || c == '+';
  });
}

using Problems = std::vector<boost::system::error_code>;

void SetLanguage(Headers headers, const L10n::Localizer& localizer,
                 Core::LocalizationContext& localization, Problems& problems) {
  const Headers lines = Named(headers, "accept-language");
  if (lines.empty()) return;
  std::string list;  // several lines are one list (RFC 9110, section 5.3)
  for (const HeaderField& line : lines) list.append(list.empty() ? "" : ",").append(line.value);
  boost::system::error_code problem;
  localization.language = localizer.PreferredLocale(list, problem);
  if (problem) problems.push_back(problem);
}

void SetFormatLocale(const L10n::Localizer& localizer, Core::ExecutionContext& context,
                     Problems& problems) {
  const auto entry = context.application.find("format-locale");
  if (entry == context.application.end()) return;
  const std::string& name = entry->second;
  if (!L10n::IsLocaleName(name)) {
    problems.emplace_back(L10n::LocalizationError::kIncorrectHeader);
  } else if (name == "C" || localizer.Supports(L10n::NormalLocale(name))) {
    context.localization.formatLocale = name;
  } else {
    problems.emplace_back(L10n::LocalizationError::kFormatLocaleNotSupported);
  }
}

}  // namespace

std::optional<Protocol::Json::ProtocolError> UpdateExecutionCtxHelper::Update(
    Headers headers, const Core::MethodIdentifier& method, Core::ExecutionContext& context,
    const L10n::Localizer& localizer, std::vector<boost::system::error_code>& passedOver) {
  if (Contradict(headers, "orbi-service", method.service) ||
      Contradict(headers, "orbi-operation", method.operation)) {
    return Protocol::Json::ProtocolError{
        Protocol::Json::ProtocolErrorCode::kInvalidParams,
        "Mismatching operation identifier in HTTP header and payload"};
  }
  if (!AddEntries(headers, context.application)) {
    return Protocol::Json::ProtocolError{
        Protocol::Json::ProtocolErrorCode::kInvalidParams,
        "protocol error: appCtx and the orbi-ctx- headers have more than 64 entries together"};
  }

  SetLanguage(headers, localizer, context.localization, passedOver);
  SetFormatLocale(localizer, context, passedOver);
  if (const auto entry = context.application.find("timezone");
      entry != context.application.end() && IsTimeZoneName(entry->second)) {
    context.localization.timeZone = entry->second;
  }
  return std::nullopt;
}

}  // namespace Orbi::Provider::JsonRpc1_1
