#pragma once

#include <string_view>

#include "orbi/data/value.h"

namespace Orbi::Bindings {

/// Marks the lists at a place of the value as maps; what is not as the place says stays as it is.
/// Callable from any thread.
/// @param place  the way there, joined by dots: names of fields, and "*" for each element of a list
///               or value of a map; empty for the value itself
void MarkMaps(std::string_view place, Data::Value& value);

}  // namespace Orbi::Bindings
