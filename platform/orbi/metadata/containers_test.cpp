#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "orbi/metadata/authentication_container.h"
#include "orbi/metadata/cli_container.h"
#include "orbi/metadata/document.h"
#include "orbi/metadata/metamodel_container.h"

namespace Orbi::Provider::Metadata {
namespace {

/// A folder for the files of one test.
class ContainersTest : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(folder_); }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  Data::Value Read(const std::string& text) {
    std::ofstream(path_, std::ios::trunc) << text;
    return ReadDocument("test", path_);
  }
  /// A document with these members beside format and component.
  Data::Value Document(const std::string& members) {
    return Read(R"({"format": 1, "component": "test", )" + members + "}");
  }

  const std::string folder_ = testing::TempDir() + "metadata." + std::to_string(::getpid());
  const std::string path_ = folder_ + "/file.json";
};

struct Refusal {
  std::string text;
  const char* reason;
};

template <typename Function>
std::string Failure(const Function& function) {
  try {
    function();
  } catch (const MetadataError& e) {
    return e.what();
  }
  return "none";
}

TEST_F(ContainersTest, FileThatIsNoDocumentOfTheComponentIsRefused) {
  const Refusal cases[] = {
      {R"({"format": 1, "format": 1})", "Invalid JSON"},
      {std::string(200, '['), "Invalid JSON"},
      {"{}", "document lacks 'format'"},
      {R"({"format": 2, "component": "test"})", "document/format is not 1"},
      {R"({"format": 1, "component": "other"})", "document/component is not 'test'"},
      {R"({"format": 1, "component": ")" + std::string(kMaxFileBytes, 'x') + "\"}", "16 MiB"},
  };
  for (const Refusal& c : cases)
    EXPECT_NE(Failure([&] { (void)Read(c.text); }).find(c.reason), std::string::npos) << c.reason;
}

TEST_F(ContainersTest, MalformedDescriptionIsRefusedWithItsPlace) {
  const std::string service = R"("services": {"s": {"documentation": "", "operations": )";
  const Refusal metamodels[] = {
      {R"("service": {})", "document has an unknown member 'service'"},
      {service + R"({"get": {"documentation": "", "input": {}}}}})",
       "document/services/s/operations/get lacks 'output'"},
      {R"("structures": {"x": {"documentation": "", "fields": {}}},
          "errors": {"x": {"documentation": ""}}, "error_fields": {})",
       "document/errors/x is described twice"},
  };
  for (const Refusal& c : metamodels) {
    Metamodel::MetadataContainer container;
    EXPECT_EQ(Failure([&] { container.Add("test", Document(c.text)); }), c.reason);
  }
  Cli::MetadataContainer container;
  EXPECT_EQ(Failure([&] {
              container.Add("test", Document(R"("commands": {"c": {"documentation": "",
                  "service": "s", "operation": "o", "columns": [1]}})"));
            }),
            "document/commands/c/columns[0] is no string");
}

TEST_F(ContainersTest, SecondDescriptionIsRefusedAndNothingOfItKept) {
  const std::string x = R"("x": {"documentation": "", "fields": {}})";
  Metamodel::MetadataContainer container;
  container.Add("test", Document("\"structures\": {" + x + "}"));
  const auto both =
      Document(R"("structures": {"y": {"documentation": "", "fields": {}}, )" + x + "}");
  EXPECT_EQ(Failure([&] { container.Add("test", both); }), "'x' is described twice");
  EXPECT_EQ(container.structures().size(), 1U);
}

TEST_F(ContainersTest, NarrowestAuthenticationRuleHolds) {
  const std::string none(Authentication::kNoAuthentication);
  const std::string schemes = R"("schemes": {"password": "", ")" + none + R"(": ""}, )";
  Authentication::MetadataContainer container;
  using Schemes = Authentication::MetadataContainer::Schemes;
  EXPECT_EQ(container.RequiredSchemes({"any", "get"}), Schemes{});
  container.Add("test", Document(schemes + R"("default": ["password"],
      "services": {"open": [")" + none +
                                 R"("], "closed": ["password"]},
      "operations": {"open.set": ["password"], "closed.list": ["password", ")" +
                                 none + R"("]})"));

  EXPECT_EQ(container.RequiredSchemes({"open", "get"}), Schemes{none});
  EXPECT_EQ(container.RequiredSchemes({"open", "set"}), Schemes{"password"});
  EXPECT_EQ(container.RequiredSchemes({"closed", "get"}), Schemes{"password"});
  EXPECT_EQ(container.RequiredSchemes({"closed", "list"}), (Schemes{"password", none}));
  EXPECT_EQ(container.RequiredSchemes({"any", "get"}), Schemes{"password"});

  const Refusal refused[] = {
      {R"("services": {"s": ["pasword"]})",
       "document/services/s names the unknown scheme 'pasword'"},
      {R"("operations": {"s.get": []})", "document/operations/s.get is empty"},
  };
  for (const Refusal& c : refused)
    EXPECT_EQ(Failure([&] { container.Add("test", Document(schemes + c.text)); }), c.reason);
}

}  // namespace
}  // namespace Orbi::Provider::Metadata
