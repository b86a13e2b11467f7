#pragma once

#include <memory>

#include "orbi/l10n/localizer.h"

/// The texts of messages in the languages of clients. Callable from any thread.
namespace LifeCycle {

/// Loads the catalogues /usr/lib/tessel/lifecycle/messages/LANGUAGE/*.zmsg, in place of what was
/// loaded before. They may hold any message that the daemon, its helpers or the configuration
/// modules tell. What cannot be loaded is logged and left out.
void LoadTranslations();

/// Words answers: in the languages of the translations, and in English, in which a module's own
/// catalogue goes before default texts.
[[nodiscard]] std::shared_ptr<const Orbi::L10n::Localizer> GetAnswerLocalizer();

}  // namespace LifeCycle
