#include "software/command/write_to_file.h"

#include <cstdio>
#include <fstream>

#include <boost/filesystem.hpp>

#include "tesselibs/log.h"

namespace LifeCycle {

namespace {

namespace fs = boost::filesystem;

constexpr const char* kFunction = "WriteToFile";

void EnsureDirectory(const fs::path& directory) {
  boost::system::error_code ignored;
  const fs::file_type type = fs::status(directory, ignored).type();
  if (type != fs::file_not_found && type != fs::status_error) return;
  Log_Level(LogLevel::kNotice, "[%s] Creating directory %s\n", kFunction, directory.c_str());
  try {
    fs::create_directories(directory);
  } catch (const std::exception& error) {
    Log_Level(LogLevel::kCritical, "[%s] Failed to create directory %s: %s\n", kFunction,
              directory.c_str(), error.what());
    throw FileIOError();
  }
}

}  // namespace

void WriteToFile(const std::string& path, std::string_view content) {
  EnsureDirectory(fs::path(path).parent_path());

  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file) {
    std::remove(path.c_str());
    Log_Level(LogLevel::kCritical, "[%s] Unable to open file: %s\n", kFunction, path.c_str());
    throw FileIOError();
  }
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  file.flush();
  file.close();
  if (!file) {
    // Removed before anything else: nobody ever finds half a document.
    std::remove(path.c_str());
    Log_Level(LogLevel::kCritical, "[%s] Failed to write to file: %s\n", kFunction, path.c_str());
    throw FileIOError();
  }
}

}  // namespace LifeCycle
