// Tickets: the bytes of a ticket's file are taken for its content only when they are exactly that,
// and a text that passes for a ticket cannot lead out of the directory.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "lib/ticket/ticket.h"
#include "pcore/unique_fd.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  if (Ticket::IsWellFormed(bytes)) {
    Require(bytes.size() >= 16 && bytes.size() <= 255);
    Require(std::ranges::all_of(bytes, [](char c) { return c > ' ' && c < 0x7F && c != '/'; }));
  }

  static const PcoreCtl::UniqueFd file(memfd_create("ticket", MFD_CLOEXEC));
  Require(ftruncate(file.Get(), 0) == 0);
  Require(pwrite(file.Get(), bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
  const std::string text = "0123456789abcdef";
  if (const auto content = Ticket::ReadContent(file.Get(), text)) {
    const auto& [config_file, service] = *content;
    Require(config_file.size() < 128 && service.size() < 128);
    Require(bytes.starts_with(text + '\n' + config_file + '\0' + service + '\0'));
  }
  return 0;
}
