#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "bindings/com/tessel/orbi/metadata/authentication/component.h"
#include "bindings/com/tessel/orbi/metadata/cli/command.h"
#include "bindings/com/tessel/orbi/metadata/metamodel/enumeration.h"
#include "bindings/com/tessel/orbi/metadata/metamodel/service.h"
#include "bindings/com/tessel/orbi/metadata/metamodel/structure.h"
#include "bindings/com/tessel/orbi/std/introspection/operation.h"
#include "bindings/com/tessel/orbi/std/introspection/service.h"
#include "orbi/core/local_provider.h"
#include "orbi/core/testing/echo_provider.h"
#include "orbi/metadata/provider_helper.h"

namespace {

namespace Metadata = Com::Tessel::Orbi::Metadata;
namespace Introspection = Com::Tessel::Orbi::Std::Introspection;
using Orbi::Bindings::Adapter;
using Orbi::Bindings::AdaptErrors;
using Orbi::Core::AsyncLocalProvider;
using Orbi::Core::MethodIdentifier;
using Orbi::Core::MethodResult;
using Orbi::Data::Structure;
using Orbi::Data::Value;

/// The shipped files loaded, and what tells of them bound.
class ServedApiTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    using namespace Orbi::Provider::ProviderHelper;
    const std::string folder = METADATA_DIR "/";
    for (const auto& error :
         {LoadCliMetadataFile("settings", folder + "kestreld_orbi_cli.json"),
          LoadCliMetadataFile("orbi_std", folder + "orbi_common_cli.json"),
          LoadMetamodelMetadataFile("settings", folder + "kestreld_orbi_metamodel.json"),
          LoadMetamodelMetadataFile("orbi_std", folder + "orbi_common_metamodel.json"),
          LoadAuthnMetadataFile("settings_orbi_authentication",
                                folder + "kestreld_orbi_authentication.json")})
      ASSERT_FALSE(error) << error->ToText();
    for (const auto& interfaces : {CliInterfaces(), MetamodelInterfaces(), AuthnInterfaces(),
                                   IntrospectionInterfaces(provider)}) {
      for (const auto& interface : interfaces) provider.AddInterface(interface);
    }
  }

  /// The answer as the type that the API promises.
  template <typename Output>
  static Output Read(const MethodIdentifier& method,
                     const std::vector<std::pair<const char*, std::string>>& arguments) {
    Structure input{"operation-input", {}};
    for (const auto& [name, value] : arguments) input.Add(name, value);
    const MethodResult result = Call(provider, method, std::move(input), nullptr);
    EXPECT_TRUE(result.output) << (result.error ? result.error->ToText() : "no answer");
    AdaptErrors errors;
    auto native = Adapter<Output>::FromValue(result.output.value_or(Value{}), errors);
    EXPECT_TRUE(native) << method.ToText() << ": " << errors.ToText();
    return native ? *native : Output{};
  }

  static std::vector<std::string> List(const std::string& service) {
    return Read<std::vector<std::string>>({service, "list"}, {});
  }

  static inline AsyncLocalProvider provider{nullptr};
};

TEST_F(ServedApiTest, EveryDescriptionHasTheFormThatIsDescribed) {
  const auto read_all = [](const std::string& service, auto tag) {
    const auto identifiers = List(service);
    EXPECT_FALSE(identifiers.empty());
    for (const std::string& id : identifiers) Read<decltype(tag)>({service, "get"}, {{"id", id}});
  };
  const std::string metadata = "com.tessel.orbi.metadata.",
                    introspection = "com.tessel.orbi.std.introspection.";
  read_all(metadata + "metamodel.service", Metadata::Metamodel::ServiceSvc::Info{});
  read_all(metadata + "metamodel.structure", Metadata::Metamodel::StructureSvc::Info{});
  read_all(metadata + "metamodel.enumeration", Metadata::Metamodel::EnumerationSvc::Info{});
  read_all(metadata + "cli.command", Metadata::Cli::CommandSvc::Info{});
  read_all(metadata + "authentication.component", Metadata::Authentication::ComponentSvc::Info{});
  read_all(introspection + "service", Introspection::ServiceSvc::Info{});
  for (const auto& [service, interface] : provider.interfaces()) {
    for (const auto& operation : interface.operations)
      Read<Introspection::OperationSvc::Info>(
          {introspection + "operation", "get"},
          {{"service_id", service}, {"operation_id", operation.definition.name}});
  }
}

}  // namespace
