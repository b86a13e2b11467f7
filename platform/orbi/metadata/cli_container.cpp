#include "orbi/metadata/cli_container.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>
#include <vector>

#include "orbi/bindings/adapter.h"
#include "orbi/metadata/document.h"

namespace Orbi::Provider::Metadata::Cli {
namespace {

const std::string kPrefix = "com.tessel.orbi.metadata.cli.command.";
constexpr std::array<std::string_view, 4> kForms = {"ARGUMENT", "OPTION", "FLAG", "FILE"};

Data::Value TextList(const std::vector<std::string>& texts) {
  return Bindings::Adapter<std::vector<std::string>>::ToValue(texts);
}

std::vector<std::string> Words(const std::string& identifier) {
  std::vector<std::string> words;
  std::istringstream stream(identifier);
  for (std::string word; std::getline(stream, word, '.');) words.push_back(word);
  return words;
}

Data::Value Option(const std::string& name, const Node& option) {
  option.Only({"field", "form", "documentation"});
  const Node form = option.Member("form");
  if (std::find(kForms.begin(), kForms.end(), form.Text()) == kForms.end())
    form.Fail("is no form of an option");
  Data::Structure value{kPrefix + "option", {}};
  value.Add("name", name)
      .Add("field", option.Member("field").Text())
      .Add("form", form.Text())
      .Add("documentation", option.Member("documentation").Text());
  return value;
}

Data::Value Command(const std::string& component, const std::string& id, const Node& command) {
  command.Only({"documentation", "service", "operation", "options", "columns"});
  Data::List options;
  command.ForEachIn("options", [&](const std::string& name, const Node& option) {
    options.items.push_back(Option(name, option));
  });
  Data::Structure value{kPrefix + "info", {}};
  value.Add("component", component)
      .Add("words", TextList(Words(id)))
      .Add("documentation", command.Member("documentation").Text())
      .Add("service", command.Member("service").Text())
      .Add("operation", command.Member("operation").Text())
      .Add("options", std::move(options))
      .Add("columns", TextList(command.Has("columns") ? command.Member("columns").Texts()
                                                      : std::vector<std::string>{}));
  return value;
}

}  // namespace

void MetadataContainer::Add(const std::string& component, const Data::Value& document) {
  const Node root(document);
  root.Only({"format", "component", "documentation", "commands"});
  Descriptions added;
  root.Member("commands").ForEach([&](const std::string& id, const Node& command) {
    added.emplace(id, Command(component, id, command));
  });
  RefuseKnown(commands_, added);
  commands_.merge(added);
}

}  // namespace Orbi::Provider::Metadata::Cli
