#include <gtest/gtest.h>

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
void Serve(AsyncLocalProvider& provider) {
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

TEST(ServedApi, EveryDescriptionHasTheFormThatIsDescribed) {
  AsyncLocalProvider provider;
  Serve(provider);
  const auto read = [&](auto output, const MethodIdentifier& method, const Structure& input) {
    const MethodResult result = Call(provider, method, input, nullptr);
    EXPECT_TRUE(result.output) << (result.error ? result.error->ToText() : "no answer");
    AdaptErrors errors;
    const auto native =
        Adapter<decltype(output)>::FromValue(result.output.value_or(Value{}), errors);
    EXPECT_TRUE(native) << method.ToText() << ": " << errors.ToText();
    return native.value_or(output);
  };
  const auto readAll = [&](auto output, const std::string& service) {
    const auto identifiers = read(std::vector<std::string>{}, {service, "list"}, {});
    EXPECT_FALSE(identifiers.empty());
    for (const std::string& id : identifiers) read(output, {service, "get"}, {"", {{"id", id}}});
  };
  const std::string metadata = "com.tessel.orbi.metadata.",
                    introspection = "com.tessel.orbi.std.introspection.";
  readAll(Metadata::Metamodel::ServiceSvc::Info{}, metadata + "metamodel.service");
  readAll(Metadata::Metamodel::StructureSvc::Info{}, metadata + "metamodel.structure");
  readAll(Metadata::Metamodel::EnumerationSvc::Info{}, metadata + "metamodel.enumeration");
  readAll(Metadata::Cli::CommandSvc::Info{}, metadata + "cli.command");
  readAll(Metadata::Authentication::ComponentSvc::Info{}, metadata + "authentication.component");
  readAll(Introspection::ServiceSvc::Info{}, introspection + "service");
  for (const auto& [service, interface] : provider.interfaces()) {
    for (const auto& operation : interface.operations) {
      read(Introspection::OperationSvc::Info{}, {introspection + "operation", "get"},
           {"", {{"service_id", service}, {"operation_id", operation.definition.name}}});
    }
  }
}

}  // namespace
