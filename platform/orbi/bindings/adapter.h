#pragma once

#include "orbi/data/value.h"

namespace Orbi::Bindings {

/// Turns a native type of the generated bindings into a data value and back:
///   static Data::Value ToValue(const T&);
///   static std::optional<T> FromValue(const Data::Value&, AdaptErrors&);
template <typename T>
struct Adapter;

}  // namespace Orbi::Bindings
