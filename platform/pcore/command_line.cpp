#include "pcore/command_line.h"

#include <errno.h>

#include "pcore/host_ctl_exception.h"

namespace PcoreCtl {

namespace {

constexpr std::string_view kSeparators = " \t\n";
constexpr std::string_view kEscapableInDoubleQuotes = "\"\\$`\n";

[[noreturn]] void Refuse(const char* reason) {
  throw HostCtl::Lib::HostCtlException(EINVAL, std::string("Bad command line: ") + reason);
}

class Splitter {
 public:
  explicit Splitter(std::string_view line) : rest_(line) {}

  std::vector<std::string> Split() {
    while (SkipSeparators()) words_.push_back(TakeWord());
    return std::move(words_);
  }

 private:
  bool SkipSeparators() {
    for (;;) {
      const std::size_t start = rest_.find_first_not_of(kSeparators);
      rest_.remove_prefix(std::min(start, rest_.size()));
      // An escaped newline does not begin a word.
      if (!rest_.starts_with("\\\n")) return !rest_.empty();
      rest_.remove_prefix(2);
    }
  }

  std::string TakeWord() {
    std::string word;
    while (!rest_.empty() && kSeparators.find(rest_.front()) == std::string_view::npos) {
      switch (const char c = TakeCharacter()) {
        case '\'':
          TakeSingleQuoted(word);
          break;
        case '"':
          TakeDoubleQuoted(word);
          break;
        case '\\':
          AppendEscaped(word);
          break;
        default:
          word.push_back(c);
      }
    }
    return word;
  }

  void TakeSingleQuoted(std::string& word) {
    for (char c; (c = TakeCharacter("unbalanced single quote")) != '\'';) word.push_back(c);
  }

  void TakeDoubleQuoted(std::string& word) {
    for (char c; (c = TakeCharacter("unbalanced double quote")) != '"';) {
      if (c == '\\' && !rest_.empty() &&
          kEscapableInDoubleQuotes.find(rest_.front()) != std::string_view::npos) {
        AppendEscaped(word);
      } else {
        word.push_back(c);
      }
    }
  }

  void AppendEscaped(std::string& word) {
    const char c = TakeCharacter("backslash at the end");
    if (c != '\n') word.push_back(c);
  }

  char TakeCharacter(const char* reasonAtEnd = "") {
    if (rest_.empty()) Refuse(reasonAtEnd);
    const char c = rest_.front();
    rest_.remove_prefix(1);
    return c;
  }

  std::string_view rest_;
  std::vector<std::string> words_;
};

}  // namespace

std::vector<std::string> SplitCommandLine(std::string_view line) {
  if (line.find('\0') != std::string_view::npos) Refuse("NUL byte");
  std::vector<std::string> words = Splitter(line).Split();
  if (words.empty()) Refuse("no command");
  return words;
}

std::string QuoteWord(std::string_view word) {
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

}  // namespace PcoreCtl
