// Tickets: the bytes of a ticket's file are taken for its content only when they are exactly that,
// and a text that passes for a ticket cannot lead out of the directory.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "fuzz/target.h"
#include "lib/ticket/ticket.h"
#include "tesselibs/unique_fd.h"

void Check(const std::string& input) {
  if (Ticket::IsWellFormed(input)) {
    Require(input.size() >= 16 && input.size() <= 255);
    Require(std::ranges::all_of(input, [](char c) { return c > ' ' && c < 0x7F && c != '/'; }));
  }

  static const UniqueFd file(memfd_create("ticket", MFD_CLOEXEC));
  Require(ftruncate(file.Get(), 0) == 0);
  Require(pwrite(file.Get(), input.data(), input.size(), 0) == static_cast<ssize_t>(input.size()));
  const std::string text = "0123456789abcdef";
  if (const auto content = Ticket::ReadContent(file.Get(), text)) {
    const auto& [configFile, service, user] = *content;
    Require(configFile.size() < 128 && service.size() < 128 && user.size() < 128);
    Require(input.starts_with(text + '\n' + configFile + '\0' + service + '\0'));
  }
}
