#include "orbi/l10n/format.h"

#include <algorithm>
#include <charconv>

#include "orbi/l10n/errors.h"

namespace Orbi::L10n {
namespace {

bool IsName(std::string_view name) {
  return std::ranges::all_of(name, [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
  });
}

/// @return the argument's index, or nothing when the name is not a number from 1 on
std::optional<std::size_t> IndexOf(std::string_view name) {
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  if (error != std::errc{} || end != name.data() + name.size() || number == 0) return std::nullopt;
  return number - 1;
}

}  // namespace

std::string ReplaceNamed(
    std::string_view text,
    const std::function<std::optional<std::string_view>(std::string_view name)>& find,
    boost::system::error_code& ec) {
  ec.clear();
  std::string filled;
  while (!text.empty()) {
    const std::size_t open = std::min(text.find('{'), text.size());
    filled += text.substr(0, open);
    text.remove_prefix(open);
    const std::size_t close = text.find('}');
    if (close == std::string_view::npos) break;
    const std::string_view name = text.substr(1, close - 1);
    if (!IsName(name)) {
      filled += '{';
      text.remove_prefix(1);
      continue;
    }
    const auto value = name.empty() ? std::nullopt : find(name);
    if (!value) {
      ec = name.empty() ? ToolsError::kEmptySpecifier : ToolsError::kArgumentNotFound;
      return {};
    }
    filled += *value;
    text.remove_prefix(close + 1);
  }
  return filled += text;
}

std::string FormatMessage(std::string_view text, const std::vector<std::string>& args,
                          boost::system::error_code& ec) {
  bool missing = false;
  const auto find = [&](std::string_view name) -> std::optional<std::string_view> {
    const auto index = IndexOf(name);
    missing = index && *index >= args.size();
    if (!index || missing) return std::nullopt;
    return args[*index];
  };
  std::string filled = ReplaceNamed(text, find, ec);
  if (missing) {
    ec = FormatError::kTooManySpecifiers;
  } else if (ec) {
    ec = ec == ToolsError::kEmptySpecifier ? FormatError::kEmptySpecifier
                                           : FormatError::kArgumentNotFound;
  }
  return filled;
}

}  // namespace Orbi::L10n
