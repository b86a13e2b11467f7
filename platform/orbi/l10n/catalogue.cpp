#include "orbi/l10n/catalogue.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Orbi::L10n {
namespace {

struct Entry {
  std::string_view id;
  const char* text;
};

constexpr Entry kCatalogue[] = {
    {"com.tessel.orbi.std.unauthenticated", "The call could not be authenticated."},
    {"com.tessel.orbi.std.unauthorized", "The caller is not allowed to do this."},
    {"orbi.data.json.invalid", "Invalid JSON at byte {1}: {2}"},
    {"orbi.data.map.key.duplicate", "Map '{1}' has the key '{2}' twice."},
    {"orbi.data.structure.field.extra", "Structure '{1}' has no field '{2}'."},
    {"orbi.data.structure.field.missing", "Structure '{1}' lacks the field '{2}' of type {3}."},
    {"orbi.data.validate.mismatch", "Field '{1}' is expected to be {2}, but is {3}."},
    {"orbi.metadata.file.invalid", "Metadata file {1}: {2}"},
    {"orbi.metadata.identifier.unknown", "There is no metadata of '{1}'."},
    {"orbi.provider.interface.already.registered", "Interface '{1}' is already registered."},
    {"orbi.provider.interface.unknown", "There is no interface '{1}'."},
    {"orbi.provider.overloaded", "Too many calls wait for their turn. Try again later."},
    {"orbi.provider.operation.unknown", "Interface '{1}' has no operation '{2}'."},
};

}  // namespace

Data::LocalizableMessage FrameworkMessage(std::string_view id, std::vector<std::string> args) {
  const auto* const entry = std::ranges::find(kCatalogue, id, &Entry::id);
  const std::string text = entry == std::end(kCatalogue) ? std::string(id) : entry->text;
  return Data::MakeMessage(std::string(id), text, std::move(args));
}

LocalizationBundle::Texts FrameworkTexts() {
  LocalizationBundle::Texts texts;
  for (const Entry& entry : kCatalogue) texts.emplace(entry.id, entry.text);
  return texts;
}

}  // namespace Orbi::L10n
