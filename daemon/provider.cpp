#include "daemon/provider.h"

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "apps/lifecycle/orbi/include/verify.h"
#include "authn/authn_filter.h"
#include "authn/user_pass_handler.h"
#include "configuration/configuration_service.h"
#include "configuration/keys_service.h"
#include "configuration/retired_services.h"
#include "daemon/threaded_provider.h"
#include "filter/host_input_filter.h"
#include "lifecycle/tasks_service.h"
#include "orbi/authz/require_user_authz.h"
#include "orbi/core/local_provider.h"
#include "orbi/metadata/authentication_container.h"
#include "orbi/metadata/metamodel_container.h"
#include "orbi/metadata/provider_helper.h"
#include "software/depots_service.h"
#include "software/desired_software_services.h"
#include "software/host_apply_service.h"
#include "software/host_software_services.h"
#include "software/installed_software_services.h"
#include "software/software_tasks.h"
#include "tesselibs/log.h"

namespace Host::Settings::SettingsApi {
namespace {

namespace Metadata = Orbi::Provider::Metadata;
namespace ProviderHelper = Orbi::Provider::ProviderHelper;
namespace Ryx = Com::Tessel::Ryx;
using Orbi::Core::AsyncLocalProvider;

/// A metadata file, how it is loaded, and the fixed line that tells which one stopped the daemon.
struct MetadataFile {
  const char* kind;
  std::optional<Orbi::Data::ErrorValue> (*load)(const std::string& component,
                                                const std::string& path);
  const char* component;
  const char* path;
  int line;
};

constexpr MetadataFile kMetadataFiles[] = {
    {"cli", ProviderHelper::LoadCliMetadataFile, "settings",
     "/usr/lib/tessel/lifecycle/metadata/kestreld_orbi_cli.json", 528},
    {"cli", ProviderHelper::LoadCliMetadataFile, "orbi_std",
     "/usr/lib/tessel/lifecycle/metadata/orbi_common_cli.json", 531},
    {"metamodel", ProviderHelper::LoadMetamodelMetadataFile, "settings",
     "/usr/lib/tessel/lifecycle/metadata/kestreld_orbi_metamodel.json", 537},
    {"metamodel", ProviderHelper::LoadMetamodelMetadataFile, "orbi_std",
     "/usr/lib/tessel/lifecycle/metadata/orbi_common_metamodel.json", 540},
    {"authn", ProviderHelper::LoadAuthnMetadataFile, "settings_orbi_authentication",
     "/usr/lib/tessel/lifecycle/metadata/kestreld_orbi_authentication.json", 546},
};

void LoadMetadata() {
  for (const MetadataFile& file : kMetadataFiles) {
    Log_Level(LogLevel::kNotice, "Loading %s metadata file: %s\n", file.kind, file.path);
    const auto error = file.load(file.component, file.path);
    if (error) Log_Level(LogLevel::kCritical, "Error loading file: %s\n", error->ToText().c_str());
    Verify(!error, "apps/lifecycle/orbi/orbicpp/provider", file.line);
  }
}

template <typename Binder, typename Implementation>
void Bind(AsyncLocalProvider& provider) {
  Binder::BindImplementation(provider, std::make_shared<Implementation>());
}

void BindServices(AsyncLocalProvider& provider) {
  namespace Cis = Com::Tessel::Cis;
  Bind<Cis::TasksSvc::AsyncServiceBinder, Cis::TasksSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::HostSettings::DepotsSvc::AsyncServiceBinder,
       Ryx::HostSettings::DepotsSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::HostSettings::SoftwareSvc::AsyncServiceBinder,
       Ryx::HostSettings::SoftwareSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::HostSettings::Software::RyxSvc::AsyncServiceBinder,
       Ryx::HostSettings::Software::RyxSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::HostSettings::Software::ComponentsSvc::AsyncServiceBinder,
       Ryx::HostSettings::Software::ComponentsSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::Hosts::Software::RyxSvc::AsyncServiceBinder,
       Ryx::Hosts::Software::RyxSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::Hosts::Software::ComponentsSvc::AsyncServiceBinder,
       Ryx::Hosts::Software::ComponentsSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::Hosts::SettingsSvc::AsyncServiceBinder, Ryx::Hosts::SettingsSvc::AsyncServiceImpl>(
      provider);
  Bind<Ryx::KestrelDaemon::SoftwareSvc::AsyncServiceBinder,
       Ryx::KestrelDaemon::SoftwareSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::KestrelDaemon::SolutionsSvc::AsyncServiceBinder,
       Ryx::KestrelDaemon::SolutionsSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::KestrelDaemon::ComponentsSvc::AsyncServiceBinder,
       Ryx::KestrelDaemon::ComponentsSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::Software::InstalledImageSvc::AsyncServiceBinder,
       Ryx::Software::InstalledImageSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::Software::InstalledComponentsSvc::AsyncServiceBinder,
       Ryx::Software::InstalledComponentsSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::Software::InstalledPaxsSvc::AsyncServiceBinder,
       Ryx::Software::InstalledPaxsSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::HostSettings::ConfigSvc::AsyncServiceBinder,
       Ryx::HostSettings::ConfigSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::HostSettings::Config::Components::KeysSvc::AsyncServiceBinder,
       Ryx::HostSettings::Config::Components::KeysSvc::AsyncServiceImpl>(provider);
  Bind<Ryx::KestrelDaemon::ConfigurationSvc::AsyncServiceBinder,
       Ryx::KestrelDaemon::ConfigurationSvc::ConfigurationServiceImpl>(provider);
  Bind<Ryx::Configuration::Components::Groups::KeysSvc::AsyncServiceBinder,
       Ryx::Configuration::Components::Groups::KeysSvc::AsyncServiceImpl>(provider);
}

void AddMetadataInterfaces(AsyncLocalProvider& provider) {
  for (auto interfaces :
       {ProviderHelper::CliInterfaces(), ProviderHelper::MetamodelInterfaces(),
        ProviderHelper::AuthnInterfaces(), ProviderHelper::IntrospectionInterfaces(provider)}) {
    for (auto& interface : interfaces) provider.AddInterface(std::move(interface));
  }
}

std::set<std::string> Identifiers(const AsyncLocalProvider& provider) {
  std::set<std::string> identifiers;
  for (const auto& [identifier, interface] : provider.interfaces()) identifiers.insert(identifier);
  return identifiers;
}

std::set<std::string> InterfacesThatNeedAUser() {
  return {
      Ryx::Hosts::Software::RyxSvc::AsyncServiceInterface::interfaceIdentifier,
      Ryx::Hosts::Software::ComponentsSvc::AsyncServiceInterface::interfaceIdentifier,
      Ryx::Hosts::SettingsSvc::AsyncServiceInterface::interfaceIdentifier,
      Ryx::HostSettings::SoftwareSvc::AsyncServiceInterface::interfaceIdentifier,
      Ryx::HostSettings::Software::RyxSvc::AsyncServiceInterface::interfaceIdentifier,
      Ryx::HostSettings::Software::ComponentsSvc::AsyncServiceInterface::interfaceIdentifier,
      Ryx::HostSettings::DepotsSvc::AsyncServiceInterface::interfaceIdentifier,
      Ryx::HostSettings::ConfigSvc::AsyncServiceInterface::interfaceIdentifier,
      Ryx::HostSettings::Config::Components::KeysSvc::AsyncServiceInterface::interfaceIdentifier,
  };
}

}  // namespace

Orbi::Core::AsyncApiProviderPtr BuildProvider(const std::shared_ptr<OrbiLoggerWrapper>& logger,
                                              CallThreads& threads, boost::asio::io_context& io) {
  LoadMetadata();

  const auto local = std::make_shared<AsyncLocalProvider>(logger);
  BindServices(*local);
  const auto threaded =
      std::make_shared<ThreadedProvider>(local, Identifiers(*local), threads.Requests());
  AddMetadataInterfaces(*local);

  const auto hostFilter = std::make_shared<Filter::HostInputFilter>(
      threaded, Metadata::Metamodel::MetadataContainer::Instance().OperationsWithField("host"));
  const auto authorised = std::make_shared<Orbi::Authz::Filter::RequireUserAuthz>(
      hostFilter, InterfacesThatNeedAUser());
  return std::make_shared<Authn::AsyncAuthnFilter>(
      authorised,
      [](const Orbi::Core::MethodIdentifier& method) -> const std::vector<std::string>& {
        return Metadata::Authentication::MetadataContainer::Instance().RequiredSchemes(method);
      },
      std::vector<Orbi::Authn::AuthnHandlerPtr>{std::make_shared<Authn::UserPassHandler>()},
      threads, io);
}

}  // namespace Host::Settings::SettingsApi
