#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orbi/bindings/adapt_errors.h"
#include "orbi/data/message.h"
#include "orbi/data/value.h"
#include "orbi/date_time.h"

/// Between the framework's values and the native types of the generated bindings.
///
/// Reading is lenient where a request may be typed by hand: what an optional declares may come
/// bare, an unset optional may be null, a map may be an object or a list of entries, a structure's
/// own name is not compared, an integer serves as a double. Everything else must fit exactly;
/// unknown fields are refused. Functions are safe to call from any thread.
namespace Orbi::Bindings {

/// A structure whose fields the interface does not fix.
using DynamicStructure = Data::Structure;

/// Turns a native type of the generated bindings into a data value and back:
///   static std::string_view TypeName();   // as error messages give it
///   static Data::Value ToValue(const T&);
///   static std::optional<T> FromValue(const Data::Value&, AdaptErrors&);
/// FromValue returns nothing exactly when it added to the errors.
template <typename T>
struct Adapter;

/// What every adapter of a type without parts has.
#define ORBI_DECLARE_ADAPTER(type)                                                       \
  template <>                                                                            \
  struct Adapter<type> {                                                                 \
    static std::string_view TypeName();                                                  \
    static Data::Value ToValue(const type&);                                             \
    static std::optional<type> FromValue(const Data::Value& value, AdaptErrors& errors); \
  }

ORBI_DECLARE_ADAPTER(bool);
ORBI_DECLARE_ADAPTER(std::int64_t);
ORBI_DECLARE_ADAPTER(double);
ORBI_DECLARE_ADAPTER(std::string);
ORBI_DECLARE_ADAPTER(Data::Secret);
ORBI_DECLARE_ADAPTER(Data::Blob);
ORBI_DECLARE_ADAPTER(DateTime);
ORBI_DECLARE_ADAPTER(DynamicStructure);
ORBI_DECLARE_ADAPTER(Data::ErrorValue);
ORBI_DECLARE_ADAPTER(Data::LocalizableMessage);
ORBI_DECLARE_ADAPTER(Data::Value);
#undef ORBI_DECLARE_ADAPTER

template <typename T>
struct Adapter<std::optional<T>> {
  static std::string_view TypeName() { return Adapter<T>::TypeName(); }

  static Data::Value ToValue(const std::optional<T>& native) {
    return native ? Data::Some(Adapter<T>::ToValue(*native)) : Data::Optional{};
  }

  static std::optional<std::optional<T>> FromValue(const Data::Value& value, AdaptErrors& errors) {
    if (value.As<Data::Void>()) return std::optional<T>{};
    const auto* optional = value.As<Data::Optional>();
    if (optional && !optional->value) return std::optional<T>{};
    std::optional<T> inner = Adapter<T>::FromValue(optional ? *optional->value : value, errors);
    if (!inner) return std::nullopt;
    return inner;
  }
};

template <typename T>
struct Adapter<std::vector<T>> {
  static std::string_view TypeName() { return "list"; }

  static Data::Value ToValue(const std::vector<T>& native) {
    Data::List list;
    list.items.reserve(native.size());
    for (const T& item : native) list.items.push_back(Adapter<T>::ToValue(item));
    return list;
  }

  static std::optional<std::vector<T>> FromValue(const Data::Value& value, AdaptErrors& errors) {
    const auto* list = value.As<Data::List>();
    if (!list) return errors.Mismatch(TypeName(), value), std::nullopt;
    std::vector<T> native;
    native.reserve(list->items.size());
    for (const Data::Value& item : list->items) {
      const AdaptErrors::Location location(errors, native.size());
      std::optional<T> element = Adapter<T>::FromValue(item, errors);
      if (!element) return std::nullopt;
      native.push_back(std::move(*element));
    }
    return native;
  }
};

/// A map's entry, found in a list entry of the form {"key", "value"}.
struct MapEntry {
  const Data::Value* key = nullptr;
  const Data::Value* value = nullptr;
};

/// @return nothing after adding to the errors, when `item` is no map entry
std::optional<MapEntry> ReadMapEntry(const Data::Value& item, AdaptErrors& errors);
Data::Value MakeMapEntry(Data::Value key, Data::Value value);

template <typename T>
struct Adapter<std::map<std::string, T>> {
  static std::string_view TypeName() { return "map"; }

  static Data::Value ToValue(const std::map<std::string, T>& native) {
    Data::List list;
    list.is_map = true;
    list.items.reserve(native.size());
    for (const auto& [key, item] : native)
      list.items.push_back(MakeMapEntry(key, Adapter<T>::ToValue(item)));
    return list;
  }
  /// Gives back each entry as soon as it is converted: a large map and its value together are what
  /// an answer takes the most memory for.
  static Data::Value ToValue(std::map<std::string, T>&& native) {
    Data::List list;
    list.is_map = true;
    list.items.reserve(native.size());
    while (!native.empty()) {
      const auto entry = native.extract(native.begin());
      list.items.push_back(MakeMapEntry(entry.key(), Adapter<T>::ToValue(entry.mapped())));
    }
    return list;
  }

  static std::optional<std::map<std::string, T>> FromValue(const Data::Value& value,
                                                           AdaptErrors& errors) {
    std::map<std::string, T> native;
    if (const auto* object = value.As<Data::Structure>()) {
      for (const Data::Field& field : object->fields) {
        if (!Insert(native, field.name, field.value, errors)) return std::nullopt;
      }
      return native;
    }
    const auto* list = value.As<Data::List>();
    if (!list) return errors.Mismatch(TypeName(), value), std::nullopt;
    for (std::size_t i = 0; i < list->items.size(); ++i) {
      const AdaptErrors::Location location(errors, i);
      const std::optional<MapEntry> entry = ReadMapEntry(list->items[i], errors);
      if (!entry) return std::nullopt;
      const auto key = Adapter<std::string>::FromValue(*entry->key, errors);
      if (!key || !Insert(native, *key, *entry->value, errors)) return std::nullopt;
    }
    return native;
  }

 private:
  static bool Insert(std::map<std::string, T>& native, const std::string& key,
                     const Data::Value& value, AdaptErrors& errors) {
    const AdaptErrors::Location location = AdaptErrors::Location::Key(errors, key);
    std::optional<T> item = Adapter<T>::FromValue(value, errors);
    if (!item) return false;
    if (native.emplace(key, std::move(*item)).second) return true;
    errors.DuplicateKey(key);
    return false;
  }
};

}  // namespace Orbi::Bindings
