#pragma once

#include <map>
#include <string>

#include "orbi/data/value.h"

namespace Orbi::Provider::Metadata::Cli {

/// The commands of generic command-line clients, as the metadata interface serves them.
///
/// Filled while the process starts, on one thread; afterwards only read, from any thread.
class MetadataContainer {
 public:
  using Descriptions = std::map<std::string, Data::Value, std::less<>>;

  /// The process's container.
  static MetadataContainer& Instance();

  /// Adds what a document describes.
  /// @throws MetadataError when it is malformed or describes something again; nothing is added then
  void Add(const std::string& component, const Data::Value& document);

  /// com.tessel.orbi.metadata.cli.command.info by command identifier.
  [[nodiscard]] const Descriptions& commands() const { return commands_; }

 private:
  Descriptions commands_;
};

}  // namespace Orbi::Provider::Metadata::Cli
