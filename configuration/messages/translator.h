#pragma once

#include <istream>
#include <memory>
#include <string>

#include "orbi/l10n/bundle.h"

/// The translator: the texts of the configuration modules' own messages, from the catalogues
/// (".zmsg" files) that the modules bring along.
///
/// Callable from any thread. A reader on one thread sees the texts as they were before a set-up on
/// another or as they are after it.
namespace LifeCycle {

/// The process-wide bundle, empty until it is set up.
[[nodiscard]] std::shared_ptr<Orbi::L10n::LocalizationBundle> GetTranslator();

/// Loads every catalogue below /usr/lib/tessel/configmanager/apply_modules, all of them as English,
/// in place of what was loaded before. What cannot be loaded is logged and left out; without the
/// folder the translator stays as it is.
void SetUpTranslator();

/// Adds the catalogue in a file to a bundle. A failure is logged at level 2.
/// @param language  "en", "es", "de", "zh_CN", "zh_TW", "ko", "ja" or "fr"
/// @return whether the catalogue was added
bool AddCatalogueFile(Orbi::L10n::LocalizationBundle& bundle, const std::string& language,
                      const std::string& path);

/// As AddCatalogueFile, from a stream.
bool AddCatalogue(Orbi::L10n::LocalizationBundle& bundle, const std::string& language,
                  std::istream& catalogue);

}  // namespace LifeCycle
