// The program of the modules that tests install (test_modules.h): keeps what is effective in its
// folder's file "state" and does, before that, what the file "behaviour" says.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <system_error>
#include <utility>

#include "tesselibs/json_document.h"

namespace {

namespace fs = std::filesystem;
using JsonDocument::FindMember;
using JsonDocument::TextOf;
using rapidjson::Document;
using rapidjson::Value;

std::string ReadAll(std::istream& stream) { return {(std::istreambuf_iterator<char>(stream)), {}}; }

/// A document that is read from a text, and its text.
struct Json {
  explicit Json(std::string content) : text(content.empty() ? "{}" : std::move(content)) {
    if (JsonDocument::ParseInPlace(text, root).IsError()) std::exit(99);
  }

  std::string text;
  Document root;
};

std::string Text(const Value& value) { return JsonDocument::Print(value, 0).GetString(); }

void NoteCalls(const fs::path& file, const Value& request) {
  std::ofstream calls(file, std::ios::app);
  for (const Value& change : request["changes"].GetArray()) {
    const std::string_view id = TextOf(&change["id"]);
    calls << TextOf(&request["component"]) << ' ' << TextOf(&change["key"]) << ' '
          << TextOf(&change["action"]) << ' ' << (id.empty() ? "-" : id) << ' '
          << Text(change["new"]) << '\n';
  }
}

/// Does what a test told it to do, which may be the end of it.
/// @return members of the answer
const Value* Behave(const Value& behaviour, const Value& request) {
  if (const Value* file = FindMember(behaviour, "touch")) std::ofstream(file->GetString()).close();
  if (FindMember(behaviour, "alone") != nullptr) {
    std::error_code error;  // of two at once, one finds the other's folder
    if (!fs::create_directory("/tmp/alone", error)) std::_Exit(1);
    usleep(5000);
    fs::remove("/tmp/alone");
  }
  if (FindMember(behaviour, "hang") != nullptr) sleep(600);
  if (const Value* output = FindMember(behaviour, "print")) {
    std::cout << output->GetString() << std::flush;
    std::_Exit(0);
  }
  if (const Value* status = FindMember(behaviour, "exit")) std::_Exit(status->GetInt());
  if (const Value* id = FindMember(behaviour, "refuse")) {
    Document error(rapidjson::kObjectType);
    std::cout << R"({"errors":[{"id":)" << Text(*id) << R"(,"path":"/time/ntp","args":[)"
              << Text(Value(Text(request["changes"][0]["old"]), error.GetAllocator())) << "]}]}"
              << std::flush;
    std::_Exit(0);
  }
  return FindMember(behaviour, "answer");
}

/// Lays a change of one instance over the list of all.
void ChangeInstance(Value& list, const Value& change, Document::AllocatorType& memory) {
  if (!list.IsArray()) list.SetArray();
  for (auto instance = list.Begin(); instance != list.End(); ++instance) {
    if (*FindMember(*instance, "name") != change["id"]) continue;
    list.Erase(instance);
    break;
  }
  if (!change["new"].IsNull()) list.PushBack(Value(change["new"], memory), memory);
}

void Apply(const Value& request, Document& state) {
  auto& memory = state.GetAllocator();
  for (const Value& change : request["changes"].GetArray()) {
    const std::string name =
        std::string(TextOf(&change["group"])).append("/").append(TextOf(&change["key"]));
    if (FindMember(state, name) == nullptr) state.AddMember(Value(name, memory), Value(), memory);
    Value& value = *FindMember(state, name);
    if (change["id"].IsNull())
      value.CopyFrom(change["new"], memory);
    else
      ChangeInstance(value, change, memory);
  }
}

void Replace(const fs::path& file, const Value& content) {
  const fs::path next = file.string() + ".new";
  std::ofstream(next) << Text(content);
  fs::rename(next, file);
}

std::string ContentOf(const fs::path& path) {
  std::ifstream file(path);
  return ReadAll(file);
}

}  // namespace

int main(int, char** arguments) {
  const fs::path folder = fs::path(arguments[0]).parent_path();
  const Json request(ReadAll(std::cin));
  const std::string_view operation = TextOf(FindMember(request.root, "operation"));
  if (operation == "apply") NoteCalls(folder / "../calls", request.root);

  const Json behaviours(ContentOf(folder / "behaviour"));
  const Value* const asked = FindMember(behaviours.root, operation);
  const Value* const answer = asked == nullptr ? nullptr : Behave(*asked, request.root);

  Json state(ContentOf(folder / "state"));
  if (answer != nullptr) {
    std::cout << Text(*answer);
    if (FindMember(*answer, "errors") != nullptr) return 0;
  } else {
    std::cout << (operation == "read" ? "{\"values\":" + Text(state.root) + "}" : "{}");
  }
  if (operation == "apply") {
    Apply(request.root, state.root);
    Replace(folder / "state", state.root);
  }
}
