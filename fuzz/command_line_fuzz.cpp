// A command line is refused or means one list of words, which it also means when every word is
// quoted; and no resource-group word stays among them.

#include <algorithm>

#include "fuzz/target.h"
#include "pcore/command_line.h"
#include "pcore/host_ctl_exception.h"
#include "pcore/resource_group.h"

namespace {

std::string Quoted(const std::string& word) {
  std::string quoted = "'";
  for (const char c : word) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace

void Check(const std::string& input) {
  try {
    std::vector<std::string> words = PcoreCtl::SplitCommandLine(input);
    Require(!words.empty());

    std::string quoted;
    for (const std::string& word : words) quoted += " " + Quoted(word);
    Require(PcoreCtl::SplitCommandLine(quoted) == words);

    PcoreCtl::TakeResourceGroup(words);
    Require(std::none_of(words.begin(), words.end(),
                         [](const std::string& word) { return word.starts_with("++group="); }));
  } catch (const HostCtl::Lib::HostCtlException& refusal) {
    Require(refusal.code() == std::errc::invalid_argument);
  }
}
