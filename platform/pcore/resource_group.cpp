#include "pcore/resource_group.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>

#include "pcore/host_ctl_exception.h"

namespace PcoreCtl {

namespace {

constexpr std::string_view kDirective = "++group=";
constexpr std::string_view kMemory = "mem=";
constexpr std::uint64_t kMebibyte = 1 << 20;
constexpr std::uint64_t kMostMebibytes = 1 << 30;

bool IsGroupName(std::string_view name) {
  constexpr std::string_view kCharacters =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";
  // The name becomes a directory's.
  return !name.empty() && name.size() <= 255 && name.front() != '.' &&
         name.find_first_not_of(kCharacters) == std::string_view::npos;
}

bool ParseMemoryLimit(std::string_view text, std::uint64_t& bytes) {
  std::uint64_t mebibytes = 0;
  const char* const end = text.data() + text.size();
  const auto [parsed, error] = std::from_chars(text.data(), end, mebibytes);
  bytes = mebibytes * kMebibyte;
  return error == std::errc() && parsed == end && mebibytes > 0 && mebibytes <= kMostMebibytes;
}

std::string_view TakeItem(std::string_view& items) {
  const std::string_view item = items.substr(0, items.find(','));
  items.remove_prefix(std::min(item.size() + 1, items.size()));
  return item;
}

ResourceGroup ParseResourceGroup(const std::string& word) {
  ResourceGroup group;
  std::string_view items = std::string_view(word).substr(kDirective.size());
  group.name = TakeItem(items);
  bool valid = IsGroupName(group.name) && !word.ends_with(',');
  while (valid && !items.empty()) {
    const std::string_view item = TakeItem(items);
    if (item == "stats") {
      group.logUsage = true;
    } else {
      valid = item.starts_with(kMemory) &&
              ParseMemoryLimit(item.substr(kMemory.size()), group.memoryLimit);
    }
  }
  if (!valid) throw HostCtl::Lib::HostCtlException(EINVAL, "Bad resource group: " + word);
  return group;
}

// Paths are plain texts here: libstdc++'s own class of paths ends the process when an allocation
// fails while two are joined.

bool Lists(const std::string& file, std::string_view controller) {
  std::ifstream stream(file);
  return std::any_of(std::istream_iterator<std::string>(stream), {},
                     [&](const std::string& word) { return word == controller; });
}

bool WriteFile(const std::string& path, const std::string& text) {
  const UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  return file && write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool HandsMemoryDown(const std::string& group) {
  return Lists(group + "/cgroup.subtree_control", "memory");
}

bool IsDelegated(const std::string& group) {
  return getxattr(group.c_str(), "user.delegate", nullptr, 0) > 0 ||
         getxattr(group.c_str(), "trusted.delegate", nullptr, 0) > 0;
}

}  // namespace

std::optional<ResourceGroup> TakeResourceGroup(std::vector<std::string>& words) {
  std::optional<ResourceGroup> group;
  std::erase_if(words, [&group](const std::string& word) {
    if (!word.starts_with(kDirective)) return false;
    if (group) throw HostCtl::Lib::HostCtlException(EINVAL, "Second resource group: " + word);
    group = ParseResourceGroup(word);
    return true;
  });
  return group;
}

std::optional<std::string> FindDelegatedCgroup(const std::string& membership,
                                               const std::string& mount) {
  constexpr std::string_view kVersion2 = "0::/";
  std::ifstream file(membership);
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with(kVersion2)) continue;
    const std::string own = mount + line.substr(kVersion2.size() - 1);
    if (HandsMemoryDown(own)) return own;
    if (line == kVersion2) return std::nullopt;
    // A group that has processes of its own cannot hand controllers down (the kernel's rule), so
    // a service manager that delegates starts the service in a group below the delegated one.
    const std::string above = own.substr(0, own.rfind('/'));
    if (IsDelegated(above) &&
        (HandsMemoryDown(above) || WriteFile(above + "/cgroup.subtree_control", "+memory"))) {
      return above;
    }
  }
  return std::nullopt;
}

UniqueFd OpenCgroup(const std::string& parent, const ResourceGroup& group) {
  const std::string directory = parent + "/" + group.name;
  if (mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) return {};
  const std::string limit = group.memoryLimit > 0 ? std::to_string(group.memoryLimit) : "max";
  if (!WriteFile(directory + "/memory.max", limit)) return {};
  return UniqueFd(open((directory + "/cgroup.procs").c_str(), O_WRONLY | O_CLOEXEC));
}

}  // namespace PcoreCtl
