#pragma once

#include <string>

#include "orbi/data/value.h"
#include "orbi/metadata/process_container.h"

namespace Orbi::Provider::Metadata::Cli {

/// The commands of generic command-line clients, as the metadata interface serves them.
class MetadataContainer : public ProcessContainer<MetadataContainer> {
 public:
  /// Adds what a document describes.
  /// @throws MetadataError when it is malformed or describes something again; nothing is added then
  void Add(const std::string& component, const Data::Value& document);

  /// com.tessel.orbi.metadata.cli.command.info by command identifier.
  [[nodiscard]] const Descriptions& commands() const { return commands_; }

 private:
  Descriptions commands_;
};

}  // namespace Orbi::Provider::Metadata::Cli
