#include "configuration/messages/config_manager_messages.h"

#include <utility>

#include "configuration/messages/message_table.h"
#include "configuration/messages/translator.h"

namespace LifeCycle {
namespace {

// clang-format off
constexpr MessageTableEntry kConfigManagerMessages[] = {
    {"com.tessel.ryx.settings.validation.reference.not-found",
     "Dependency not satisfied. Missing configuration '{2}'."},
    {"com.tessel.ryx.settings.validation.additional.property", "Property not defined in schema."},
    {"com.tessel.ryx.settings.validation.invalid.enum.option", "Invalid enum option used."},
    {"com.tessel.ryx.settings.validation.type.check.failure", "Type mismatch, expected: '{1}'."},
    {"com.tessel.ryx.settings.validation.str.max.length",
     "String length exceeded maximum allowed limit of '{1}'."},
    {"com.tessel.ryx.settings.validation.str.min.length",
     "String length should be at least '{1}'."},
    {"com.tessel.ryx.settings.validation.max.length", "Value cannot exceed '{2}'."},
    {"com.tessel.ryx.settings.validation.min.length", "Value cannot be less than '{2}'."},
    {"com.tessel.ryx.settings.validation.non.user.property",
     "Property is not defined as user configuration in schema."},
    {"com.tessel.ryx.settings.validation.missing.required.property",
     "Required property '{1}' missing."},
    {"com.tessel.ryx.settings.validation.invalid.union.tag", "Dependency not fulfilled '{1}'."},
    {"com.tessel.ryx.settings.validation.duplicate.instanceId",
     "Duplicate instance with id '{1}'."},
    {"com.tessel.ryx.settings.validation.array.min.length",
     "Size of array should be at least '{1}'."},
    {"com.tessel.ryx.settings.validation.array.max.length",
     "Size of array cannot be more than '{1}'."},
    {"com.tessel.ryx.settings.validation.pattern.mismatch",
     "Value does not match expected pattern '{1}'."},
    {"com.tessel.ryx.settings.validation.schema.not-found",
     "Schema not found for comp '{1}' group '{2}' key '{3}'."},
    {"com.tessel.ryx.settings.validation.null.value", "Invalid data: 'null' value."},
    {"com.tessel.ryx.settings.validation.duplicate.property", "Duplicate property '{1}'."},
    {"com.tessel.ryx.settings.validation.invalid.delete.default",
     "Only applicable for mutable default configurations."},
    {"com.tessel.ryx.settings.validation.invalid.host-specific",
     "Host specific key/property only valid in host-specific section."},
    {"com.tessel.ryx.settings.validation.missing.instanceId",
     "Instance should have ID property '{1}'."},
    {"com.tessel.ryx.settings.validation.empty.property", "Empty '{1}'."},
    {"com.tessel.ryx.settings.validation.plugin.invalid.val.error",
     "Validation plugin error: Invalid value '{1}'."},
    {"com.tessel.ryx.settings.validation.plugin.unexpected.error",
     "Validation plugin '{1}' failed unexpectedly."},
    {"com.tessel.ryx.settings.validation.plugin.failed", "Validation plugin '{1}' failed."},
    {"com.tessel.ryx.settings.validation.more", "There are {1} more violations."},
    {"com.tessel.ryx.settings.apply.plugin.unexpected.error",
     "Apply plugin '{1}' failed unexpectedly."},
    {"com.tessel.ryx.settings.apply.plugin.failed", "Apply plugin '{1}' failed."},
    {"com.tessel.settings.impact.info.add", "{1} under {2} in {3} will be added."},
    {"com.tessel.settings.impact.info.set", "{1} under {2} in {3} will be updated."},
    {"com.tessel.settings.impact.info.delete", "{1} under {2} in {3} will be deleted."},
    {"com.tessel.settings.impact.info.reboot", "Host will be rebooted."},
    {"com.tessel.settings.impact.info.maintenance-mode", "Host will be put in maintenance mode."},
    {"com.tessel.ryx.settings.impact.plugin.unexpected.error",
     "Impact plugin '{1}' failed unexpectedly."},
    {"com.tessel.ryx.settings.impact.plugin.failed", "Impact plugin '{1}' failed."},
    // What is told beside the others: where, why, and what to do.
    {"com.tessel.ryx.settings.document.empty",
     "The document names no key, so there is nothing to check or to apply. A host whose settings "
     "all have their defaults exports such a document. Name at least one key in 'profile' or "
     "'host-specific'."},
    {"com.tessel.ryx.settings.document.malformed", "{1} At line {2}, column {3} (byte {4})."},
    {"com.tessel.ryx.settings.component.unknown",
     "This host has no component '{1}'. Its components: {2}."},
    {"com.tessel.ryx.settings.group.unknown",
     "Component '{1}' has no group '{2}'. Its groups: {3}."},
    {"com.tessel.ryx.settings.key.unknown", "Group '{1}/{2}' has no key '{3}'. Its keys: {4}."},
    {"com.tessel.ryx.settings.key.not_set",
     "Nothing was set for '{1}', so there is nothing to delete."},
    {"com.tessel.ryx.settings.instances.expected",
     "'{1}' holds a list: its value has the one member 'instances', a list of objects that are "
     "told apart by their '{2}'."},
    {"com.tessel.ryx.settings.value.empty",
     "An empty value cannot be set. To go back to the default, delete the key."},
    {"com.tessel.ryx.settings.value.secret", "A value that holds secrets cannot be set."},
};
// clang-format on

}  // namespace

std::string ConfigManagerMessageText(std::string_view id) {
  const auto translated = GetTranslator()->Find("en", id);
  if (translated && !translated->empty()) return *translated;
  return std::string(FindText(kConfigManagerMessages, id).value_or(kUnknownMessage));
}

Orbi::Data::LocalizableMessage ConfigManagerMessage(std::string id, std::vector<std::string> args) {
  const std::string text = ConfigManagerMessageText(id);
  return Orbi::Data::MakeMessage(std::move(id), text, std::move(args));
}

}  // namespace LifeCycle
