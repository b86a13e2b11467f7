#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "orbi/core/provider.h"
#include "orbi/data/value.h"
#include "orbi/metadata/process_container.h"

namespace Orbi::Provider::Metadata::Authentication {

/// A call by this scheme carries no credentials.
inline constexpr std::string_view kNoAuthentication =
    "com.tessel.orbi.std.security.no_authentication";

/// Which credentials calls need.
class MetadataContainer : public ProcessContainer<MetadataContainer> {
 public:
  using Schemes = std::vector<std::string>;

  /// Adds the rules of a document.
  /// @throws MetadataError when it is malformed, names a scheme that it does not describe, or rules
  ///         over something again; nothing is added then
  void Add(const std::string& component, const Data::Value& document);

  /// The schemes that a call may use, any one of them: those of the operation, else those of the
  /// service, else the default. Empty when no rule says anything: such a call is refused.
  [[nodiscard]] const Schemes& RequiredSchemes(const Core::MethodIdentifier& method) const;

  /// com.tessel.orbi.metadata.authentication.component.info by component name.
  [[nodiscard]] const Descriptions& components() const { return components_; }

 private:
  using Rules = std::map<std::string, Schemes>;

  Descriptions components_;
  Schemes default_;
  Rules services_;
  Rules operations_;  ///< by SERVICE.OPERATION
};

}  // namespace Orbi::Provider::Metadata::Authentication
