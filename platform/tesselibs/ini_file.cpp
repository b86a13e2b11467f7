#include "tesselibs/ini_file.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include "tesselibs/log.h"

namespace {

/// @return 0 or the error number
int Open(const std::string& path, std::ifstream& file) {
  // Opening a pipe would wait for its writer, and the start of the process with it.
  struct stat status {};
  if (stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode)) return EINVAL;
  errno = 0;
  file.open(path);
  return file ? 0 : errno;
}

}  // namespace

std::map<std::string, std::string> ReadIniFile(const std::string& path) {
  std::ifstream file;
  if (const int error = Open(path, file); !file.is_open()) {
    if (error != ENOENT)
      Log_Level(LogLevel::kError, "Cannot read %s: %s\n", path.c_str(), strerror(error));
    return {};
  }

  std::map<std::string, std::string> settings;
  try {
    boost::property_tree::ptree tree;
    boost::property_tree::read_ini(file, tree);
    for (const auto& [key, node] : tree) {
      if (node.empty()) settings.emplace(key, node.data());
    }
  } catch (const boost::property_tree::ini_parser_error& error) {
    Log_Level(LogLevel::kError, "Ignoring %s: line %lu: %s\n", path.c_str(), error.line(),
              error.message().c_str());
    return {};
  }
  return settings;
}
