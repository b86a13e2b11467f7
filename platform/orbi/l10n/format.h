#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/system/error_code.hpp>

namespace Orbi::L10n {

/// Replaces each specifier "{name}" of a text by what `find` knows under the name, in one pass:
/// what is filled in is not looked at again. A brace that does not enclose a name is text.
/// @param ec  a ToolsError: the name is unknown to `find`, or empty
/// @return the text; empty when `ec` is set
[[nodiscard]] std::string ReplaceNamed(
    std::string_view text,
    const std::function<std::optional<std::string_view>(std::string_view name)>& find,
    boost::system::error_code& ec);

/// Fills a message's arguments into its text, where "{1}" stands for the first.
/// @param ec  a FormatError: a specifier is empty or not a number, or there are fewer arguments
/// @return the text; empty when `ec` is set
[[nodiscard]] std::string FormatMessage(std::string_view text, const std::vector<std::string>& args,
                                        boost::system::error_code& ec);

}  // namespace Orbi::L10n
