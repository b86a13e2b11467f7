#include "configmanager/document/host_identity.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "configmanager/testing/module_folder.h"

namespace RyxConfigManager {
namespace {

TEST(HostIdentityTest, TakesTheFirstUsableIdentifier) {
  constexpr char kProduct[] = "4C4C4544-0042-3510-8054-B2C04F4E4D32";
  constexpr char kMachine[] = "0123456789abcdef0123456789abcdef";
  constexpr char kDerived[] = "b89fbdd5-1cb9-5910-b18c-8be9d3d8b81a";
  struct {
    std::string product, machine, expected;
  } const cases[] = {
      {kProduct, kMachine, "4c4c4544-0042-3510-8054-b2c04f4e4d32"},
      {"Not Settable", kMachine, kDerived},
      {"00000000-0000-0000-0000-000000000000", kMachine, kDerived},
      {"FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF", kMachine, kDerived},
      {"", "uninitialized", ""},
      {"", "", ""},
  };
  for (const auto& [product, machine, expected] : cases) {
    const ModuleFolder folder;
    const auto identify = [&, product = product, machine = machine] {
      return HostIdentity(folder.AddFile("product_uuid", product + "\n"),
                          folder.AddFile("machine-id", machine + "\n"));
    };
    if (expected.empty())
      EXPECT_THROW(static_cast<void>(identify()), std::runtime_error) << machine;
    else
      EXPECT_EQ(identify(), expected) << product;
  }
}

}  // namespace
}  // namespace RyxConfigManager
