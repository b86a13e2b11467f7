// Message catalogues: whatever is in a file, it is refused whole or its texts can be looked up and
// filled in.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "orbi/l10n/bundle.h"
#include "orbi/l10n/format.h"
#include "orbi/l10n/localizer.h"

using namespace Orbi::L10n;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string catalogue(reinterpret_cast<const char*>(data), size);
  std::istringstream stream(catalogue);
  boost::system::error_code ec;
  const LocalizationBundle::Texts texts = LocalizationBundle::LoadIniFile(stream, ec);
  if (ec && !texts.empty()) std::abort();

  LocalizationBundle bundle;
  bundle.AddLocale("en", texts);
  for (const auto& [id, text] : texts) {
    if (bundle.Find("en_US", id) != text) std::abort();
    const std::string filled = FormatMessage(text, {"first", "{1}"}, ec);
    if (ec && !filled.empty()) std::abort();
  }
  (void)PreferredLocale(catalogue, ec);
  return 0;
}
