#pragma once

#include <string>

#include "configmanager/module/module.h"
#include "configmanager/schema/violations.h"
#include "configstore/document.h"

namespace RyxConfigManager {

/// Collects everything that is wrong with a merged document, as far as its schema tells.
///
/// What is in the sections is checked where it stands, so that violations name a place in the
/// document as it was given; what can only be told of the whole, required properties and
/// references, is judged by the host's own merge of the sections. The sections of other hosts are
/// held to the same schema. Time grows linearly with the document. Callable from any thread.
/// @param modules  the keys of the host
/// @param host     its identifier
/// @throws ConfigManagerException  kEmptyDocument: the document names no key, and nothing else is
///         wrong
void CheckDocument(const ConfigStoreDocument::Document& document, const ModuleSet& modules,
                   const std::string& host, Violations& violations);

}  // namespace RyxConfigManager
