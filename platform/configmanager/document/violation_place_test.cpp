#include "configmanager/document/violation_place.h"

#include <gtest/gtest.h>

#include "configmanager/module/installed_modules.h"
#include "configmanager/testing/test_modules.h"
#include "configstore/document.h"

namespace RyxConfigManager {
namespace {

TEST(LocateErrors, TellsOfEachWhereItIsInTheDocument) {
  const TestModules installed;
  const auto modules = InstalledModules();
  const auto document = ConfigStoreDocument::CreateDocument(R"({
      "profile": {"net": {"lan": {"profiles": [{"name": "a/b"}, {"name": "c", "mtu": 1}]}},
                  "time": {"ntp": {"servers": {"server": ["x"]}}}},
      "host-specific": {"H-1": {"net": {"lan": {"profiles": [{"name": "c", "address": "y"}]}},
                                "zone": {"id": {"name": {"z": 1}}}}}})");
  const struct {
    const char* path;
    const char* located;
    const char* key;
    const char* instance;
  } cases[] = {
      // As the schema's violations have it.
      {"/profile/time/ntp/servers/server/0", "/profile/time/ntp/servers/server/0", "servers", ""},
      {"/profile/net/lan/profiles/0/mtu", "/profile/net/lan/profiles/0/mtu", "profiles", "a/b"},
      {"/host-specific/H-1/net/lan/profiles/0", "/host-specific/H-1/net/lan/profiles/0", "profiles",
       "c"},
      {"/profile/net/lan/profiles/7", "/profile/net/lan/profiles/7", "profiles", ""},
      {"/profile/none/of/these", "/profile/none/of/these", "these", ""},
      {"/metadata", "/metadata", "", ""},
      // As modules have it.
      {"/time/ntp/servers/server/0", "/profile/time/ntp/servers/server/0", "servers", ""},
      {"/net/lan/profiles/a~1b", "/profile/net/lan/profiles/0", "profiles", "a/b"},
      {"/net/lan/profiles/c/mtu", "/profile/net/lan/profiles/1/mtu", "profiles", "c"},
      {"/net/lan/profiles/c/address", "/host-specific/H-1/net/lan/profiles/0/address", "profiles",
       "c"},
      {"/zone/id/name/other", "/host-specific/H-1/zone/id/name/other", "name", ""},
      {"/time/ntp/leap/x", "/profile/time/ntp/leap/x", "leap", ""},
      {"/net/lan/profiles/gone/mtu", "/profile/net/lan/profiles/gone/mtu", "profiles", "gone"},
      {"/time/ntp", "/time/ntp", "", ""},
      {"x", "x", "", ""},
      {"", "", "", ""},
  };
  for (const auto& c : cases) {
    ErrorInfo error{"id", {}, c.path};
    LocateErrors({&error, 1}, *modules, document.root(), "h-1");
    EXPECT_EQ(error.path, c.located);
    EXPECT_EQ(error.address.key, c.key) << c.path;
    EXPECT_EQ(error.instance, c.instance) << c.path;
  }
}

}  // namespace
}  // namespace RyxConfigManager
