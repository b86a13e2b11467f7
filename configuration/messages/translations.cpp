#include "configuration/messages/translations.h"

#include <string>

#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>

#include "configuration/messages/translator.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

namespace fs = boost::filesystem;
using Orbi::L10n::LocalizationBundle;

constexpr char kRoot[] = "/usr/lib/tessel/lifecycle/messages";

std::shared_ptr<LocalizationBundle> Translations() {
  static const auto translations = std::make_shared<LocalizationBundle>();
  return translations;
}

/// Calls `visit` for each entry of a folder; one that cannot be read has none.
template <typename Visit>
void ForEachEntry(const fs::path& folder, const Visit& visit) {
  boost::system::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    visit(entry->path());
  }
}

}  // namespace

void LoadTranslations() {
  LocalizationBundle loaded;
  ForEachEntry(kRoot, [&](const fs::path& folder) {
    const std::string language = folder.filename().string();
    ForEachEntry(folder, [&](const fs::path& file) {
      if (file.extension() == ".zmsg" && AddCatalogueFile(loaded, language, file.string()))
        Log_Level(LogLevel::kNotice, "Loaded messages in \"%s\" from %s\n", language.c_str(),
                  file.c_str());
    });
  });
  Translations()->Replace(loaded);
}

std::shared_ptr<const Orbi::L10n::Localizer> GetAnswerLocalizer() {
  static const auto localizer = std::make_shared<const Orbi::L10n::Localizer>(
      std::string(Orbi::L10n::kDefaultLocale),
      Orbi::L10n::Localizer::Bundles{Translations(), GetTranslator(),
                                     Orbi::L10n::LocalizerHelpers::GetFrameworkBundle()});
  return localizer;
}

}  // namespace LifeCycle
