#include "orbi/core/local_provider.h"

#include <gtest/gtest.h>

#include "orbi/authz/require_user_authz.h"
#include "orbi/core/testing/echo_provider.h"

namespace Orbi::Core {
namespace {

ApiInterface Service(std::string identifier, Operation::Invoker invoke) {
  return {std::move(identifier), {{{"get", {}, false, "void", {}}, std::move(invoke)}}};
}

void Succeed(const Data::Value&, const ExecutionContextPtr&, MethodCompletion completion) {
  completion(MethodResult::Output(Data::Value{}));
}

MethodResult CallGet(AsyncApiProvider& provider, const std::string& service,
                     ExecutionContextPtr context = nullptr) {
  return Call(provider, {service, "get"}, {}, std::move(context));
}

TEST(AsyncLocalProvider, SecondInterfaceOfAnIdentifierIsRefused) {
  AsyncLocalProvider provider;
  provider.AddInterface(Service("s", Succeed));
  try {
    provider.AddInterface(Service("s", nullptr));
    FAIL() << "registered";
  } catch (const RegistrationError& e) {
    EXPECT_EQ(e.message().id, "orbi.provider.interface.already.registered");
    EXPECT_EQ(e.message().args, std::vector<std::string>{"s"});
  }
  EXPECT_TRUE(CallGet(provider, "s").output) << "the first one stays";
}

TEST(AsyncLocalProvider, ImplementationThatThrowsIsAnsweredOnce) {
  AsyncLocalProvider provider;
  provider.AddInterface(
      Service("s", [](auto&, auto&, auto) { throw std::runtime_error("broken"); }));
  provider.AddInterface(Service("t", [](auto& input, auto& context, MethodCompletion completion) {
    Succeed(input, context, std::move(completion));
    throw std::runtime_error("late");
  }));
  const auto broken = CallGet(provider, "s");
  EXPECT_TRUE(!broken.output && !broken.error);
  EXPECT_TRUE(CallGet(provider, "t").output);
}

TEST(RequireUserAuthz, OnlyKnownUsersReachTheInterfacesGiven) {
  const auto local = std::make_shared<AsyncLocalProvider>();
  local->AddInterface(Service("guarded", Succeed));
  local->AddInterface(Service("free", Succeed));
  Authz::Filter::RequireUserAuthz filter(local, {"guarded"});

  const auto anonymous = std::make_shared<ExecutionContext>();
  const auto known = std::make_shared<ExecutionContext>();
  known->authentication.emplace();
  for (const ExecutionContextPtr& context : {ExecutionContextPtr{}, anonymous}) {
    EXPECT_EQ(CallGet(filter, "guarded", context).error.value().id,
              "com.tessel.orbi.std.errors.unauthorized");
    EXPECT_TRUE(CallGet(filter, "free", context).output);
  }
  EXPECT_TRUE(CallGet(filter, "guarded", known).output);
}

}  // namespace
}  // namespace Orbi::Core
