#include "configmanager/module/host_schema.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "configmanager/config_manager.h"
#include "configmanager/module/description_format.h"
#include "configmanager/module/installed_modules.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {

Document DescribeKeys(const ModuleSet& modules) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  writer.StartObject();
  writer.Key("schema_version");
  writer.String(kSchemaVersion);
  writer.Key("components");
  writer.StartObject();
  for (const auto& module : modules.modules()) {
    writer.Key(module->component.c_str());
    writer.StartObject();
    for (const char* const name : {"version", "description", "groups"}) {
      const auto* const member = JsonDocument::FindMember(module->description, name);
      if (member == nullptr) continue;
      writer.Key(name);
      member->Accept(writer);
    }
    writer.EndObject();
  }
  writer.EndObject();
  writer.EndObject();
  return ConfigStoreDocument::CreateDocument({text.GetString(), text.GetSize()});
}

Document GenerateHostDocumentSchema(const Document&) { return DescribeKeys(*InstalledModules()); }

}  // namespace RyxConfigManager
