#include "tesselibs/ini_file.h"

#include <errno.h>
#include <string.h>

#include <fstream>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include "tesselibs/log.h"

std::map<std::string, std::string> ReadIniFile(const std::string& path) {
  errno = 0;
  std::ifstream file(path);
  if (!file) {
    const int error = errno;
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
