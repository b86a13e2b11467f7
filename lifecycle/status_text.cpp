#include "lifecycle/status_text.h"

#include <rapidjson/error/en.h>

#include <algorithm>
#include <utility>

#include "lifecycle/task_file_errors.h"
#include "taskdb/task_record.h"

namespace LifeCycle {
namespace {

using JsonDocument::MemberPlace;

std::string_view Behind(std::string_view text, std::string_view characters) {
  return text.substr(std::min(text.find_first_not_of(characters), text.size()));
}

std::string Quoted(const std::string& text) {
  const auto printed =
      JsonDocument::Print(rapidjson::Value(rapidjson::StringRef(text)), text.size());
  return {printed.GetString(), printed.GetSize()};
}

bool IsUnderWay(const RecordText& record) {
  rapidjson::Document document;
  std::string text;
  record.Decode(document, text);
  return JsonDocument::FindMember(document, "status") != nullptr && !TaskDB::IsFinished(document);
}

}  // namespace

RecordText::RecordText(std::string_view bytes, const MemberPlace& place)
    : member(Behind(bytes, " \t\n\r,")) {
  const std::size_t behindName = place.nameEnd - place.begin - (bytes.size() - member.size());
  name = member.substr(0, behindName);
  value = Behind(member.substr(behindName), " \t\n\r:");
}

std::string RecordText::Id() const {
  if (name.find('\\') == std::string_view::npos)
    return std::string(name.substr(1, name.size() - 2));
  std::string text(name);
  rapidjson::Document document;
  (void)JsonDocument::ParseInPlace(text, document);
  return std::string(JsonDocument::TextOf(&document));
}

void RecordText::Decode(rapidjson::Document& document, std::string& text) const {
  document.SetNull();
  document.GetAllocator().Clear();
  text = value;
  (void)JsonDocument::ParseInPlace(text, document);  // it has been parsed as part of the whole
}

StatusText::StatusText(std::string text, const std::string& path) : text_(std::move(text)) {
  auto scan = JsonDocument::ScanObject(text_);
  if (scan.result.IsError()) throw JsonParseError(rapidjson::GetParseError_En(scan.result.Code()));
  if (!scan.isObject) throw UnusableTaskFileError(path, kNoObject);
  places_ = std::move(scan.members);
}

RecordText StatusText::operator[](std::size_t index) const {
  const MemberPlace& place = places_[index];
  return {std::string_view(text_).substr(place.begin, place.end - place.begin), place};
}

std::optional<std::size_t> StatusText::Find(std::string_view id) const {
  for (std::size_t i = 0; i < places_.size(); ++i) {
    const std::string_view name = (*this)[i].name;
    const bool escaped = name.find('\\') != std::string_view::npos;
    if (escaped ? (*this)[i].Id() == id : name.substr(1, name.size() - 2) == id) return i;
  }
  return std::nullopt;
}

void StatusText::Replace(std::span<const Replacement> replacements) {
  MakeCompact();
  std::size_t size = text_.size();
  for (const Replacement& replacement : replacements) size += replacement.value.size();
  std::string text;
  text.reserve(size);
  std::size_t copied = 0;
  auto next = replacements.begin();
  for (std::size_t i = 0; i < places_.size(); ++i) {
    MemberPlace& place = places_[i];
    const std::size_t shift = text.size() - copied;  // modulo 2^64: it may be less
    if (next == replacements.end() || next->index != i) {
      place = {place.begin + shift, place.nameEnd + shift, place.end + shift};
      continue;
    }
    const std::size_t value = place.end - (*this)[i].value.size();
    text.append(text_, copied, value - copied).append(next->value);
    copied = place.end;
    place = {place.begin + shift, place.nameEnd + shift, text.size()};
    ++next;
  }
  text_ = std::move(text.append(text_, copied));
}

void StatusText::Append(const std::string& id, std::string_view value) {
  MakeCompact();
  text_.pop_back();
  MemberPlace place{text_.size(), 0, 0};
  if (!places_.empty()) text_ += ',';
  text_ += Quoted(id);
  place.nameEnd = text_.size();
  text_ += ':';
  text_ += value;
  place.end = text_.size();
  text_ += '}';
  places_.push_back(place);
}

bool StatusText::IsCompact() const {
  for (const char blank : {'\n', '\r', '\t'})  // not one of them can be in a string
    if (text_.find(blank) != std::string::npos) return false;
  std::size_t end = 1;
  for (std::size_t i = 0; i < places_.size(); ++i) {
    const RecordText record = (*this)[i];
    const std::size_t separators = (i == 0 ? 0 : 1) + 1;
    if (places_[i].end - places_[i].begin != separators + record.name.size() + record.value.size())
      return false;
    end = places_[i].end;
  }
  return text_[0] == '{' && end + 1 == text_.size();
}

void StatusText::MakeCompact() {
  if (IsCompact()) return;
  rapidjson::Document document;
  (void)JsonDocument::ParseInPlace(text_, document);
  const auto printed = JsonDocument::Print(document, text_.size());
  text_.assign(printed.GetString(), printed.GetSize());
  places_ = JsonDocument::ScanObject(text_).members;
}

std::string TextToGoOn(std::span<const MemberPlace> places,
                       const std::function<std::string_view(std::size_t, std::size_t)>& bytes,
                       std::optional<std::size_t> own, std::size_t largest) {
  std::vector<std::string> kept;
  std::size_t size = 2;
  bool recent = true;
  for (std::size_t i = places.size(); i-- > 0;) {
    const MemberPlace& place = places[i];
    const std::size_t length = place.end - place.begin + 1;
    recent = recent && size + length <= largest / 4;
    if (!recent && i != own && size + length > largest / 2) continue;
    const RecordText record(bytes(place.begin, place.end), place);
    if (!recent && i != own && !IsUnderWay(record)) continue;
    kept.emplace_back(record.member);
    size += length;
  }
  std::string text = "{";
  text.reserve(size);
  for (auto member = kept.rbegin(); member != kept.rend(); ++member) {
    if (text.size() > 1) text += ',';
    text += *member;
  }
  return text += '}';
}

}  // namespace LifeCycle
