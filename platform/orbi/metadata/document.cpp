#include "orbi/metadata/document.h"

#include <string.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>

#include "orbi/json/reader.h"

namespace Orbi::Provider::Metadata {
namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw MetadataError(strerror(errno));
  std::string text;
  std::array<char, 16384> part;
  while (file.read(part.data(), part.size()) || file.gcount() > 0) {
    text.append(part.data(), static_cast<std::size_t>(file.gcount()));
    if (text.size() > kMaxFileBytes) throw MetadataError("it is larger than 16 MiB");
  }
  if (file.bad()) throw MetadataError("it cannot be read");
  return text;
}

}  // namespace

template <typename T>
const T& Node::As(const char* expected) const {
  if (const T* value = value_.As<T>()) return *value;
  Fail("is no " + std::string(expected));
}

void Node::Fail(const std::string& reason) const { throw MetadataError(place_ + " " + reason); }

// An object of clean JSON is a structure without a name.
const Data::Structure& Node::Object() const { return As<Data::Structure>("object"); }

Node Node::Member(std::string_view name) const {
  const Data::Value* member = Object().Find(name);
  if (!member) Fail("lacks '" + std::string(name) + "'");
  return Node(*member, place_ + "/" + std::string(name));
}

bool Node::Has(std::string_view name) const { return Object().Find(name) != nullptr; }

void Node::ForEach(const std::function<void(const std::string& name, const Node&)>& visit) const {
  for (const Data::Field& field : Object().fields)
    visit(field.name, Node(field.value, place_ + "/" + field.name));
}

void Node::ForEachIn(std::string_view name,
                     const std::function<void(const std::string& name, const Node&)>& visit) const {
  if (Object().Find(name)) Member(name).ForEach(visit);
}

const Node& Node::Only(std::initializer_list<std::string_view> names) const {
  for (const Data::Field& field : Object().fields) {
    if (std::find(names.begin(), names.end(), field.name) == names.end())
      Fail("has an unknown member '" + field.name + "'");
  }
  return *this;
}

bool Node::Is(std::string_view text) const {
  const auto* own = value_.As<std::string>();
  return own && *own == text;
}

const std::string& Node::Text() const { return As<std::string>("string"); }

std::vector<std::string> Node::Texts() const {
  std::vector<std::string> texts;
  for (const Data::Value& item : As<Data::List>("list").items)
    texts.push_back(Node(item, place_ + "[" + std::to_string(texts.size()) + "]").Text());
  return texts;
}

std::int64_t Node::Integer() const { return As<std::int64_t>("integer"); }

Data::Value ReadDocument(const std::string& component, const std::string& path) {
  Data::ErrorValue error;
  auto document = Protocol::Json::JsonDirectDataDeserializer().Deserialize(ReadFile(path), error);
  if (!document) throw MetadataError(error.ToText());
  const Node root(*document);
  if (root.Member("format").Integer() != 1) root.Member("format").Fail("is not 1");
  if (root.Member("component").Text() != component)
    root.Member("component").Fail("is not '" + component + "'");
  return std::move(*document);
}

}  // namespace Orbi::Provider::Metadata
