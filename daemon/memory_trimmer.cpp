#include "daemon/memory_trimmer.h"

#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <fstream>

#include <boost/system/error_code.hpp>

namespace Host::Settings::SettingsApi {
namespace {

constexpr std::chrono::seconds kInterval{10};
constexpr int kLargeBlock = 4 << 20;
constexpr std::size_t kWorthTrimming = std::size_t{16} << 20;

/// Physical memory of the process in bytes.
std::size_t ResidentMemory() {
  std::size_t size = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// What the allocator counts as free says nothing: it still counts what it has given back.
void Trim() {
  const auto heap = mallinfo2();
  if (ResidentMemory() > heap.uordblks + heap.hblkhd + kWorthTrimming) malloc_trim(0);
}

}  // namespace

MemoryTrimmer::MemoryTrimmer(boost::asio::io_context& io) : timer_(io) {
  // Trimming leaves out what is free above all blocks of a thread's own heap. The allocator gives
  // that back by itself, but only from a size on that it raises to 64 MiB unless it is fixed.
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  mallopt(M_TRIM_THRESHOLD, kLargeBlock);
}

void MemoryTrimmer::Start() {
  timer_.expires_after(kInterval);
  timer_.async_wait([this](const boost::system::error_code& ec) {
    if (ec) return;
    Start();
    Trim();
  });
}

}  // namespace Host::Settings::SettingsApi
