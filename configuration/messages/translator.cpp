#include "configuration/messages/translator.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string_view>
#include <vector>

#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>

#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

constexpr char kCatalogueRoot[] = "/usr/lib/tessel/configmanager/apply_modules";

bool IsSupported(std::string_view language) {
  static constexpr std::array<std::string_view, 8> kLanguages = {"en",    "es", "de", "zh_CN",
                                                                 "zh_TW", "ko", "ja", "fr"};
  return std::ranges::find(kLanguages, language) != kLanguages.end();
}

/// The catalogues below the root, as far as the folders can be read.
std::vector<std::string> FindCatalogues() {
  namespace fs = boost::filesystem;
  std::vector<std::string> catalogues;
  boost::system::error_code error;
  for (fs::recursive_directory_iterator entry(kCatalogueRoot, error), end; !error && entry != end;
       entry.increment(error)) {
    boost::system::error_code ignored;  // an entry without a status is no regular file
    if (entry->path().extension() == ".zmsg" && fs::is_regular_file(entry->status(ignored)))
      catalogues.push_back(entry->path().string());
  }
  if (error)
    Log_Level(LogLevel::kCritical, "ExtractZmsgFiles: failed to iterate over \"%s\" : \"%s\"\n",
              kCatalogueRoot, error.message().c_str());
  return catalogues;
}

}  // namespace

std::shared_ptr<Orbi::L10n::LocalizationBundle> GetTranslator() {
  static const auto translator = std::make_shared<Orbi::L10n::LocalizationBundle>();
  return translator;
}

void SetUpTranslator() {
  Log_Level(LogLevel::kNotice, "Running translator setup...\n");
  boost::system::error_code error;
  boost::filesystem::status(kCatalogueRoot, error);
  if (error) {
    Log_Level(LogLevel::kNotice, "Cannot open dir \"%s\", error message: \"%s\"\n", kCatalogueRoot,
              error.message().c_str());
    return;
  }
  Orbi::L10n::LocalizationBundle loaded;
  const auto catalogues = FindCatalogues();
  for (const auto& path : catalogues) {
    if (AddCatalogueFile(loaded, "en", path))
      Log_Level(LogLevel::kNotice, "File \"%s\" successfully added to the translator\n",
                path.c_str());
  }
  GetTranslator()->Replace(loaded);
  Log_Level(LogLevel::kNotice, "The translator found %d .zmsg files in directory \"%s\"\n",
            static_cast<int>(catalogues.size()), kCatalogueRoot);
}

bool AddCatalogueFile(Orbi::L10n::LocalizationBundle& bundle, const std::string& language,
                      const std::string& path) {
  if (!IsSupported(language)) {
    Log_Level(LogLevel::kCritical, "Adding file \"%s\" failed : Language \"%s\" is not supported\n",
              path.c_str(), language.c_str());
    return false;
  }
  errno = 0;
  std::ifstream file(path);
  if (!file) {
    Log_Level(LogLevel::kCritical, "Opening file \"%s\" failed : \"%s\"\n", path.c_str(),
              std::strerror(errno));
    return false;
  }
  if (!AddCatalogue(bundle, language, file)) {
    Log_Level(LogLevel::kCritical, "Loading the file \"%s\" failed\n", path.c_str());
    return false;
  }
  return true;
}

bool AddCatalogue(Orbi::L10n::LocalizationBundle& bundle, const std::string& language,
                  std::istream& catalogue) {
  if (!IsSupported(language)) {
    Log_Level(LogLevel::kCritical, "Language \"%s\" is not supported\n", language.c_str());
    return false;
  }
  boost::system::error_code error;
  auto texts = Orbi::L10n::LocalizationBundle::LoadIniFile(catalogue, error);
  if (error) {
    Log_Level(LogLevel::kCritical, "LoadIniFile failed - ec = \"%s\", returning...\n",
              error.message().c_str());
    return false;
  }
  bundle.AddLocale(language, std::move(texts));
  return true;
}

}  // namespace LifeCycle
