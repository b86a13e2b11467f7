// A metadata document is taken or refused with a MetadataError, never anything else.

#include "fuzz/target.h"
#include "orbi/json/reader.h"
#include "orbi/metadata/authentication_container.h"
#include "orbi/metadata/cli_container.h"
#include "orbi/metadata/document.h"
#include "orbi/metadata/metamodel_container.h"

namespace {

namespace Metadata = Orbi::Provider::Metadata;

template <typename Container>
void Add(const Orbi::Data::Value& document) {
  Container container;
  try {
    container.Add("settings", document);
  } catch (const Metadata::MetadataError&) {
  }
}

}  // namespace

void Check(const std::string& input) {
  Orbi::Data::ErrorValue error;
  const auto document =
      Orbi::Protocol::Json::JsonDirectDataDeserializer().Deserialize(input, error);
  if (!document) return;
  Add<Metadata::Metamodel::MetadataContainer>(*document);
  Add<Metadata::Cli::MetadataContainer>(*document);
  Add<Metadata::Authentication::MetadataContainer>(*document);
}
