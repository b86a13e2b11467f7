#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bindings/com/tessel/ryx/host_settings.h"
#include "orbi/bindings/map_places.h"
#include "orbi/data/message.h"
#include "orbi/json/writer.h"

namespace {

namespace HostSettings = Com::Tessel::Ryx::HostSettings;
using Orbi::Bindings::Adapter;
using Orbi::Bindings::AdaptErrors;
using Orbi::Data::List;
using Orbi::Data::Some;
using Orbi::Data::Structure;
using Orbi::Data::Value;

Structure Object(const std::vector<std::pair<const char*, Value>>& fields, const char* name = "") {
  Structure structure{name, {}};
  for (const auto& [field, value] : fields) structure.Add(field, value);
  return structure;
}

Value ListOf(std::vector<Value> items) { return List{std::move(items)}; }

Value MapEntry(const char* key, Value value) {
  return Object({{"key", key}, {"value", std::move(value)}}, "map-entry");
}

HostSettings::SoftwareSpec FullSpec() {
  HostSettings::SoftwareSpec spec;
  spec.base_image.version = "8.0-1";
  spec.add_on = {"vendor-pack", "2.1"};
  spec.components = {{"disk", {"1.0"}}, {"net", {}}};
  spec.solutions = {{"backup", {"3.0", {"agent", "driver"}}}};
  return spec;
}

TEST(StructureAdapter, NativeStructureSurvivesTheWayThroughAValue) {
  AdaptErrors errors;
  const auto spec = FullSpec();
  const Value value = Adapter<HostSettings::SoftwareSpec>::ToValue(spec);
  EXPECT_EQ(value.As<Structure>()->name, "com.tessel.ryx.host_settings.software_spec");
  EXPECT_EQ(Adapter<HostSettings::SoftwareSpec>::FromValue(value, errors), spec) << errors.ToText();
}

TEST(StructureAdapter, TakesWhatAPersonTypes) {
  // Bare optionals, null for an unset one, objects for maps, no structure names.
  const Value typed = Object(
      {{"base_image", Object({{"version", "8.0-1"}})},
       {"add_on", Object({{"name", "vendor-pack"}, {"version", "2.1"}})},
       {"components", Object({{"net", Object({{"version", Value{}}})},
                              {"disk", Object({{"version", "1.0"}}, "some.other.name")}})},
       {"solutions", Some(ListOf({MapEntry(
                         "backup", Object({{"version", "3.0"},
                                           {"components", ListOf({"agent", "driver"})}}))}))}});
  AdaptErrors errors;
  EXPECT_EQ(Adapter<HostSettings::SoftwareSpec>::FromValue(typed, errors), FullSpec())
      << errors.ToText();
}

TEST(StructureAdapter, SaysWhatDoesNotFitAndWhere) {
  const auto spec = [](const char* member, Value value) {
    return Object({{"base_image", Object({{"version", "1"}})},
                   {"components", Object({})},
                   {member, std::move(value)}});
  };
  const auto components = [](Value value) {
    return Object({{"base_image", Object({{"version", "1"}})}, {"components", std::move(value)}});
  };
  const std::string type = "com.tessel.ryx.host_settings.software_spec";
  const struct {
    Value value;
    std::string message;
    std::vector<std::string> args;
  } cases[] = {
      {Object({{"components", Object({})}}),
       "structure.field.missing",
       {type, "base_image", "com.tessel.ryx.host_settings.base_image_spec"}},
      {spec("addon", Value(1)), "structure.field.extra", {type, "addon", "integer"}},
      {components(Object({{"net", Object({{"version", Some(Value(true))}})}})),
       "validate.mismatch",
       {"components[\"net\"].version", "string", "boolean"}},
      {Object({{"base_image", Object({{"version", Some("1")}})}, {"components", Object({})}}),
       "validate.mismatch",
       {"base_image.version", "string", "optional"}},
      {ListOf({}), "validate.mismatch", {"value", type, "list"}},
      {spec("solutions",
            Object({{"s", Object({{"version", "1"}, {"components", ListOf({"a", Value(2)})}})}})),
       "validate.mismatch",
       {"solutions[\"s\"].components[1]", "string", "integer"}},
      {components(ListOf({Object({{"key", "k"}, {"value", Object({})}, {"x", "y"}})})),
       "structure.field.extra",
       {"map-entry", "components[0].x", "string"}},
      {components(ListOf({MapEntry("k", Object({})), MapEntry("k", Object({}))})),
       "map.key.duplicate",
       {"components[1][\"k\"]", "k"}},
  };
  for (const auto& [value, message, args] : cases) {
    AdaptErrors errors;
    EXPECT_FALSE(Adapter<HostSettings::SoftwareSpec>::FromValue(value, errors)) << args[0];
    ASSERT_EQ(errors.messages().size(), 1U) << args[0] << ": " << errors.ToText();
    EXPECT_EQ(errors.messages()[0].id, "orbi.data." + message);
    EXPECT_EQ(errors.messages()[0].args, args);
  }
}

TEST(MapPlaces, AreFoundInListsAndMaps) {
  const auto empty = [] { return Object({{"m", ListOf({})}}); };
  Value value =
      ListOf({MapEntry("a", ListOf({empty(), Value(1)})), Value(true), ListOf({empty()})});
  Orbi::Bindings::MarkMaps("*.*.m", value);
  EXPECT_EQ(Orbi::Protocol::Json::JsonDirectDataSerializer(Orbi::Protocol::Json::Secrets::kWritten)
                .Serialize(value),
            R"([{"key":"a","value":[{"m":{}},1]},true,[{"m":{}}]])");
}

}  // namespace
