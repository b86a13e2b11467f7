#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "bindings/com/tessel/cis/tasks.h"
#include "bindings/com/tessel/orbi/metadata/authentication/component.h"
#include "bindings/com/tessel/orbi/metadata/cli/command.h"
#include "bindings/com/tessel/orbi/metadata/metamodel/enumeration.h"
#include "bindings/com/tessel/orbi/metadata/metamodel/service.h"
#include "bindings/com/tessel/orbi/metadata/metamodel/structure.h"
#include "bindings/com/tessel/orbi/std/introspection/operation.h"
#include "bindings/com/tessel/orbi/std/introspection/service.h"
#include "bindings/com/tessel/ryx/configuration/components/groups/keys.h"
#include "bindings/com/tessel/ryx/host_settings/config.h"
#include "bindings/com/tessel/ryx/host_settings/config/components/keys.h"
#include "bindings/com/tessel/ryx/host_settings/depots.h"
#include "bindings/com/tessel/ryx/host_settings/software.h"
#include "bindings/com/tessel/ryx/host_settings/software/components.h"
#include "bindings/com/tessel/ryx/host_settings/software/ryx.h"
#include "bindings/com/tessel/ryx/hosts/settings.h"
#include "bindings/com/tessel/ryx/hosts/software/components.h"
#include "bindings/com/tessel/ryx/hosts/software/ryx.h"
#include "bindings/com/tessel/ryx/kestrel_daemon/components.h"
#include "bindings/com/tessel/ryx/kestrel_daemon/configuration.h"
#include "bindings/com/tessel/ryx/kestrel_daemon/software.h"
#include "bindings/com/tessel/ryx/kestrel_daemon/solutions.h"
#include "bindings/com/tessel/ryx/software/installed_components.h"
#include "bindings/com/tessel/ryx/software/installed_image.h"
#include "bindings/com/tessel/ryx/software/installed_paxs.h"
#include "orbi/core/local_provider.h"
#include "orbi/metadata/authentication_container.h"
#include "orbi/metadata/metamodel_container.h"
#include "orbi/metadata/provider_helper.h"

namespace {

namespace Metadata = Com::Tessel::Orbi::Metadata;
namespace Introspection = Com::Tessel::Orbi::Std::Introspection;
namespace Ryx = Com::Tessel::Ryx;
using Orbi::Bindings::Adapter;
using Orbi::Bindings::AdaptErrors;
using Orbi::Core::AsyncLocalProvider;
using Orbi::Core::MethodCompletion;
using Orbi::Core::MethodIdentifier;
using Orbi::Core::MethodResult;
using Orbi::Data::Structure;
using Orbi::Data::Value;

template <typename Binder, typename Implementation>
void Bind(AsyncLocalProvider& provider) {
  Binder::BindImplementation(provider, std::make_shared<Implementation>());
}

void BindAll(AsyncLocalProvider& provider) {
#define BIND(service) \
  Bind<service::AsyncServiceBinder, service::UnsupportedImplementation>(provider)
  BIND(Com::Tessel::Cis::TasksSvc);
  BIND(Ryx::KestrelDaemon::ConfigurationSvc);
  BIND(Ryx::HostSettings::ConfigSvc);
  BIND(Ryx::HostSettings::Config::Components::KeysSvc);
  BIND(Ryx::Configuration::Components::Groups::KeysSvc);
  BIND(Ryx::HostSettings::DepotsSvc);
  BIND(Ryx::HostSettings::SoftwareSvc);
  BIND(Ryx::HostSettings::Software::RyxSvc);
  BIND(Ryx::HostSettings::Software::ComponentsSvc);
  BIND(Ryx::Hosts::SettingsSvc);
  BIND(Ryx::Hosts::Software::RyxSvc);
  BIND(Ryx::Hosts::Software::ComponentsSvc);
  BIND(Ryx::KestrelDaemon::SoftwareSvc);
  BIND(Ryx::KestrelDaemon::SolutionsSvc);
  BIND(Ryx::KestrelDaemon::ComponentsSvc);
  BIND(Ryx::Software::InstalledImageSvc);
  BIND(Ryx::Software::InstalledComponentsSvc);
  BIND(Ryx::Software::InstalledPaxsSvc);
#undef BIND
}

/// The shipped files loaded, everything bound as the daemon binds it.
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
    BindAll(provider);
    for (const auto& interfaces : {CliInterfaces(), MetamodelInterfaces(), AuthnInterfaces(),
                                   IntrospectionInterfaces(provider)}) {
      for (const auto& interface : interfaces) provider.AddInterface(interface);
    }
  }

  static MethodResult Call(const MethodIdentifier& method, Value input) {
    std::optional<MethodResult> answer;
    provider.Invoke(method, std::move(input), nullptr,
                    MethodCompletion([&](MethodResult result) { answer = std::move(result); }));
    return answer.value_or(MethodResult{});
  }

  /// The answer as the type that the API promises.
  template <typename Output>
  static Output Read(const MethodIdentifier& method,
                     const std::vector<std::pair<const char*, std::string>>& arguments) {
    Structure input{"operation-input", {}};
    for (const auto& [name, value] : arguments) input.Add(name, value);
    const MethodResult result = Call(method, std::move(input));
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

TEST_F(ServedApiTest, WhatIsBoundIsWhatIsDescribed) {
  const std::string described =
      Metadata::Metamodel::ServiceSvc::AsyncServiceInterface::interfaceIdentifier;
  const std::string bound = Introspection::ServiceSvc::AsyncServiceInterface::interfaceIdentifier;
  const std::string operations =
      Introspection::OperationSvc::AsyncServiceInterface::interfaceIdentifier;
  ASSERT_EQ(List(bound), List(described));
  EXPECT_EQ(List(bound).size(), 18U + 7U);

  for (const std::string& service : List(described)) {
    std::vector<std::string> names;
    const auto info =
        Read<Metadata::Metamodel::ServiceSvc::Info>({described, "get"}, {{"id", service}});
    for (const auto& operation : info.operations) {
      names.push_back(operation.name);
      const auto compiled = Read<Introspection::OperationSvc::Info>(
          {operations, "get"}, {{"service_id", service}, {"operation_id", operation.name}});
      const std::string where = service + "." + operation.name;
      ASSERT_EQ(compiled.input.size(), operation.input.size()) << where;
      for (std::size_t i = 0; i < compiled.input.size(); ++i) {
        EXPECT_EQ(compiled.input[i].name, operation.input[i].name) << where;
        EXPECT_EQ(compiled.input[i].type, operation.input[i].type) << where;
      }
      EXPECT_EQ(compiled.any_input, operation.any_input) << where;
      EXPECT_EQ(compiled.output, operation.output.type) << where;
      EXPECT_EQ(compiled.errors.size(), operation.errors.size()) << where;
      for (const std::string& error : compiled.errors)
        EXPECT_TRUE(operation.errors.contains(error)) << where << ": " << error;
    }
    EXPECT_EQ(Read<Introspection::ServiceSvc::Info>({bound, "get"}, {{"id", service}}).operations,
              names);
    EXPECT_EQ(Read<std::vector<std::string>>({operations, "list"}, {{"service_id", service}}),
              names);
  }
}

TEST_F(ServedApiTest, EveryDescriptionHasTheFormThatIsDescribed) {
  const auto read_all = [](const char* service, auto tag) {
    const auto identifiers = List(service);
    EXPECT_FALSE(identifiers.empty());
    for (const std::string& id : identifiers) Read<decltype(tag)>({service, "get"}, {{"id", id}});
  };
  read_all("com.tessel.orbi.metadata.metamodel.structure",
           Metadata::Metamodel::StructureSvc::Info{});
  read_all("com.tessel.orbi.metadata.metamodel.enumeration",
           Metadata::Metamodel::EnumerationSvc::Info{});
  read_all("com.tessel.orbi.metadata.cli.command", Metadata::Cli::CommandSvc::Info{});
  read_all("com.tessel.orbi.metadata.authentication.component",
           Metadata::Authentication::ComponentSvc::Info{});
}

TEST_F(ServedApiTest, OnlyDescriptionsAreReadWithoutCredentials) {
  const auto& rules = Orbi::Provider::Metadata::Authentication::MetadataContainer::Instance();
  for (const auto& [service, interface] : provider.interfaces()) {
    const bool describes = service.starts_with("com.tessel.orbi.");
    for (const auto& operation : interface.operations)
      EXPECT_EQ(rules.IsPublic({service, operation.definition.name}), describes) << service;
  }
  EXPECT_FALSE(rules.IsPublic({"com.tessel.unknown", "get"}));
}

TEST_F(ServedApiTest, HostIsAskedForByTheHostScopedServicesOnly) {
  const std::string desired = "com.tessel.ryx.host_settings.",
                    actual = "com.tessel.ryx.hosts.software.";
  const std::set<MethodIdentifier> expected = {
      {desired + "depots", "list"},
      {desired + "depots", "create"},
      {desired + "depots", "delete"},
      {desired + "software", "get"},
      {desired + "software", "set"},
      {desired + "software.ryx", "get"},
      {desired + "software.ryx", "set"},
      {desired + "software.components", "get"},
      {desired + "software.components", "set"},
      {desired + "software.components", "delete"},
      {actual + "ryx", "get"},
      {actual + "components", "get"},
      {actual + "components", "list"},
  };
  EXPECT_EQ(Orbi::Provider::Metadata::Metamodel::MetadataContainer::Instance().OperationsWithField(
                "host"),
            expected);
}

TEST_F(ServedApiTest, CallsThatCannotBeServedSayWhy) {
  const std::string depots = "com.tessel.ryx.host_settings.depots",
                    config = "com.tessel.ryx.host_settings.config";
  const std::string structures = "com.tessel.orbi.metadata.metamodel.structure";
  const auto field = [](const char* name, Value value) {
    Structure input{"operation-input", {}};
    return Value(input.Add(name, std::move(value)));
  };
  const struct {
    MethodIdentifier method;
    Value input;
    const char *error, *message;
  } cases[] = {
      {{"com.tessel.nothing", "get"}, {}, "operation_not_found", "orbi.provider.interface.unknown"},
      {{depots, "rename"}, {}, "operation_not_found", "orbi.provider.operation.unknown"},
      {{"com.tessel.ryx.kestrel_daemon.software", "scan"},
       {},
       "operation_not_found",
       "orbi.provider.operation.unknown"},
      {{depots, "delete"}, {}, "invalid_argument", "orbi.data.structure.field.missing"},
      {{depots, "delete"},
       field("depot", Value(7)),
       "invalid_argument",
       "orbi.data.validate.mismatch"},
      {{depots, "list"}, field("name", "x"), "invalid_argument", "orbi.data.structure.field.extra"},
      {{depots, "list"}, "text", "invalid_argument", "orbi.data.validate.mismatch"},
      {{depots, "list"}, {}, "unsupported", "orbi.provider.operation.unsupported"},
      {{config, "get"}, "text", "unsupported", "orbi.provider.operation.unsupported"},
      {{structures, "get"}, {}, "invalid_argument", "orbi.data.structure.field.missing"},
      {{structures, "get"},
       field("id", "no.such"),
       "not_found",
       "orbi.metadata.identifier.unknown"},
  };
  for (const auto& c : cases) {
    const MethodResult result = Call(c.method, c.input);
    ASSERT_TRUE(result.error) << c.method.ToText();
    EXPECT_EQ(result.error->id, std::string("com.tessel.orbi.std.errors.") + c.error);
    AdaptErrors errors;
    const auto messages = Adapter<std::vector<Orbi::Data::LocalizableMessage>>::FromValue(
        *result.error->Find("messages"), errors);
    ASSERT_TRUE(messages && messages->size() >= 1) << c.method.ToText();
    EXPECT_EQ(messages->at(0).id, c.message) << c.method.ToText();
  }
}

}  // namespace
