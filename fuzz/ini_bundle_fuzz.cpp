// Message catalogues: whatever is in a file, it is refused whole or its texts can be looked up and
// filled in.

#include <sstream>

#include "fuzz/target.h"
#include "orbi/l10n/bundle.h"
#include "orbi/l10n/format.h"
#include "orbi/l10n/localizer.h"

using namespace Orbi::L10n;

void Check(const std::string& input) {
  std::istringstream stream(input);
  boost::system::error_code ec;
  const LocalizationBundle::Texts texts = LocalizationBundle::LoadIniFile(stream, ec);
  Require(!ec || texts.empty());

  LocalizationBundle bundle;
  bundle.AddLocale("en", texts);
  for (const auto& [id, text] : texts) {
    Require(bundle.Find("en_US", id) == text);
    const std::string filled = FormatMessage(text, {"first", "{1}"}, ec);
    Require(!ec || filled.empty());
  }
  const std::string preferred = LocalizerHelpers::GetDefaultLocalizer()->PreferredLocale(input, ec);
  Require(NormalLocale(preferred) == preferred);
}
