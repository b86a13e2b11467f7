#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace PcoreCtl {

/// Splits a command line into words by the quoting rules of the POSIX shell (XCU, section 2.2):
/// blanks, tabs and newlines separate words; within single quotes every character stands for
/// itself; within double quotes a backslash escapes only `"`, `\`, `$` and a backquote; elsewhere
/// it escapes any character; an escaped newline vanishes. There is no shell: `;`, `|`, `$`, `#`,
/// `*` and the like are ordinary characters.
/// @throws HostCtl::Lib::HostCtlException with EINVAL for a NUL byte, a quote without its partner,
/// a
///         backslash at the very end, or no word at all
std::vector<std::string> SplitCommandLine(std::string_view line);

/// @return the word as a part of a command line that SplitCommandLine makes the same word of
[[nodiscard]] std::string QuoteWord(std::string_view word);

}  // namespace PcoreCtl
