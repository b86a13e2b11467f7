#include "configmanager/state/setting_values.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "configmanager/schema/member_index.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {

using JsonDocument::Members;
using rapidjson::Value;

namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void WriteCanonically(Writer& writer, const Value& value) {
  if (value.IsArray()) {
    writer.StartArray();
    for (const Value& element : value.GetArray()) WriteCanonically(writer, element);
    writer.EndArray();
  } else if (value.IsObject()) {
    std::vector<const Value::Member*> members;
    for (const auto& member : Members(value)) members.push_back(&member);
    const auto name = [](const Value::Member* member) {
      return JsonDocument::TextOf(&member->name);
    };
    std::ranges::stable_sort(members, {}, name);
    writer.StartObject();
    for (const Value::Member* member : members) {
      writer.Key(member->name.GetString(), member->name.GetStringLength());
      WriteCanonically(writer, member->value);
    }
    writer.EndObject();
  } else {
    value.Accept(writer);
  }
}

/// The reader of JSON may be a few units off in a double's last place, so that one that was written
/// and read again need not be the same.
bool AreClose(double a, double b) {
  constexpr double kRelativeError = 8 * std::numeric_limits<double>::epsilon();
  return a == b || std::abs(a - b) <= kRelativeError * std::max(std::abs(a), std::abs(b));
}

}  // namespace

bool IsAsDesired(const SettingComparison& setting) {
  if (setting.effective == nullptr || setting.desired == nullptr) {
    return setting.effective == setting.desired;
  }
  const MemberIndex effective = IndexMembers(setting.effective);
  const MemberIndex desired = IndexMembers(setting.desired);
  const MemberIndex defaults = IndexMembers(setting.defaultValue);
  const MemberIndex stored = IndexMembers(setting.stored);
  const auto isAsDesired = [&](const auto& property) {
    const Value* value = Find(effective, property.first);
    return AreEqual(value != nullptr ? value : Find(defaults, property.first), property.second);
  };
  const auto isLeftOpen = [&](const auto& property) {
    if (desired.contains(property.first)) return true;
    const Value* value = Find(defaults, property.first);
    return value != nullptr ? AreEqual(value, property.second) : !stored.contains(property.first);
  };
  return std::ranges::all_of(desired, isAsDesired) && std::ranges::all_of(effective, isLeftOpen);
}

bool AreEqual(const Value* a, const Value* b) {
  if (a == nullptr || b == nullptr) return a == b;
  if (a->IsArray() && b->IsArray()) {
    return std::equal(a->Begin(), a->End(), b->Begin(), b->End(),
                      [](const Value& x, const Value& y) { return AreEqual(&x, &y); });
  }
  if (a->IsDouble() && b->IsDouble()) return AreClose(a->GetDouble(), b->GetDouble());
  if (!a->IsObject() || !b->IsObject()) return *a == *b;
  const MemberIndex others = IndexMembers(b);
  return a->MemberCount() == b->MemberCount() &&
         std::ranges::all_of(Members(*a), [&](const Value::Member& member) {
           return AreEqual(&member.value, Find(others, JsonDocument::TextOf(&member.name)));
         });
}

std::string ToText(const Value* value) {
  if (value == nullptr) return {};
  const auto text = JsonDocument::Print(*value, 256);
  return {text.GetString(), text.GetSize()};
}

std::string ToCanonicalText(const Value& value) {
  rapidjson::StringBuffer text;
  Writer writer(text);
  WriteCanonically(writer, value);
  return {text.GetString(), text.GetSize()};
}

}  // namespace RyxConfigManager
