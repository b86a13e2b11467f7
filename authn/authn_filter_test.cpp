#include "authn/authn_filter.h"

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "orbi/core/testing/echo_provider.h"

namespace {

using Orbi::Authn::Wait;
using Orbi::Core::MethodIdentifier;

constexpr const char* kNone = "com.tessel.orbi.std.security.no_authentication";

/// Takes its own scheme only, and the password "good".
struct Handler : Orbi::Authn::AuthnHandler {
  explicit Handler(std::string ownScheme) : scheme(std::move(ownScheme)) {}
  std::optional<Wait> Takes(const Orbi::Core::ExecutionContext& context) const override {
    if (!context.security || context.security->schemeId != scheme) return std::nullopt;
    return Wait::kSystem;
  }
  bool Authenticate(Orbi::Core::ExecutionContext& context) override {
    if (context.security->password == "throw") throw std::runtime_error("broken");
    if (context.security->password != "good") return false;
    context.authentication = {scheme, "user", {}};
    return true;
  }
  const std::string scheme;
};

/// Makes checks at once, as long as there is room.
struct Threads : Host::Settings::SettingsApi::Authn::CheckThreads {
  bool Run(Wait, const std::string&, Check check, Done done) override {
    if (full) return false;
    done(check());
    return true;
  }
  bool full = false;
};

TEST(AsyncAuthnFilterTest, OnlyWhatAHandlerAcceptsOrNeedsNoCredentialsReachesTheService) {
  const struct {
    const char *service, *scheme, *password, *authenticated_by;  // scheme "": no credentials
  } cases[] = {
      {"host", "one", "good", "one"},
      {"host", "two", "good", "two"},
      {"host", "one", "bad", nullptr},
      {"host", "two", "bad", nullptr},
      {"host", "six", "good", nullptr},
      {"host", "", "", nullptr},
      {"host", "one", "throw", nullptr},
      {"metadata", "", "", ""},
      {"metadata", "one", "bad", ""},
      {"host", "three", "good", nullptr},
      {"host", kNone, "", nullptr},
      {"metadata", kNone, "", ""},
      {"either", "", "", ""},
      {"either", kNone, "", ""},
      {"either", "one", "good", "one"},
      {"either", "one", "bad", nullptr},
      {"either", "two", "bad", ""},
      {"unruled", "one", "good", nullptr},
  };
  Threads threads;
  boost::asio::io_context io;
  Host::Settings::SettingsApi::Authn::AsyncAuthnFilter filter(
      std::make_shared<Orbi::Core::EchoProvider>(),
      [](const MethodIdentifier& method) -> const std::vector<std::string>& {
        static const std::map<std::string, std::vector<std::string>> rules{
            {"host", {"one", "two", "six"}}, {"metadata", {kNone}}, {"either", {kNone, "one"}}};
        static const std::vector<std::string> none;
        const auto rule = rules.find(method.service);
        return rule == rules.end() ? none : rule->second;
      },
      {std::make_shared<Handler>("one"), std::make_shared<Handler>("two"),
       std::make_shared<Handler>("three")},
      threads, io);
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.service) + " " + c.scheme + " " + c.password);
    const auto context = std::make_shared<Orbi::Core::ExecutionContext>();
    context->authentication = {"forged", "root", {}};
    if (*c.scheme) {
      context->security = std::make_unique<Orbi::Core::SecurityContext>();
      context->security->schemeId = c.scheme;
      context->security->password = c.password;
    }
    const auto result = Call(filter, {c.service, "get"}, "input", context);
    EXPECT_TRUE(!context->security || context->security->password.empty()) << "still in memory";
    if (c.authenticated_by) {
      EXPECT_EQ(result.output, Orbi::Data::Value("input"));
      EXPECT_EQ(context->authentication ? context->authentication->type : "", c.authenticated_by);
      continue;
    }
    EXPECT_EQ(result.error.value().id, "com.tessel.orbi.std.errors.unauthenticated");
  }
  threads.full = true;
  const auto context = std::make_shared<Orbi::Core::ExecutionContext>();
  context->security = std::make_unique<Orbi::Core::SecurityContext>();
  context->security->schemeId = "one";
  context->security->password = "good";
  const auto result = Call(filter, {"host", "get"}, "input", context);
  EXPECT_EQ(result.error.value().id, "com.tessel.orbi.std.errors.service_unavailable");
  EXPECT_TRUE(context->security->password.empty()) << "still in memory";
}

TEST(AsyncAuthnFilterTest, WhateverComesOutOfTheServiceEndsTheCallOnly) {
  struct Broken : Orbi::Core::AsyncApiProvider {
    void Invoke(const MethodIdentifier& method, Orbi::Data::Value, Orbi::Core::ExecutionContextPtr,
                Orbi::Core::MethodCompletion) override {
      if (method.operation == "get") throw std::runtime_error("broken");
      throw 1;
    }
  };
  Threads threads;
  boost::asio::io_context io;
  Host::Settings::SettingsApi::Authn::AsyncAuthnFilter filter(
      std::make_shared<Broken>(),
      [](const MethodIdentifier&) -> const std::vector<std::string>& {
        static const std::vector<std::string> open{kNone};
        return open;
      },
      {}, threads, io);
  for (const char* operation : {"get", "set"}) {
    const auto result = Call(filter, {"metadata", operation}, "input",
                             std::make_shared<Orbi::Core::ExecutionContext>());
    EXPECT_FALSE(result.output || result.error) << "an internal error for the client";
  }
}

}  // namespace
