#include "orbi/core/local_provider.h"

#include <gtest/gtest.h>

#include <sstream>

#include "orbi/authz/require_user_authz.h"

namespace Orbi::Core {
namespace {

/// Keeps what is logged.
class MemoryLogger : public Log::Logger {
 public:
  std::unique_ptr<Log::LogRecord> CreateRecord(int) override {
    class Record : public Log::LogRecord {
     public:
      explicit Record(std::ostringstream& text) : text_(text) {}
      std::ostream& Stream() override { return text_; }

     private:
      std::ostringstream& text_;
    };
    return std::make_unique<Record>(text);
  }
  std::ostringstream text;
};

ApiInterface Service(std::string identifier, Operation::Invoker invoke) {
  return {std::move(identifier), {{{"get", {}, false, "void", {}}, std::move(invoke)}}};
}

void Succeed(const Data::Value&, const ExecutionContextPtr&, MethodCompletion completion) {
  completion(MethodResult::Output(Data::Value{}));
}

/// What the call came to, or nothing when it was not answered exactly once.
std::optional<MethodResult> Call(AsyncApiProvider& provider, const MethodIdentifier& method,
                                 ExecutionContextPtr context = nullptr) {
  std::vector<MethodResult> answers;
  provider.Invoke(
      method, Data::Value{}, std::move(context),
      MethodCompletion([&](MethodResult result) { answers.push_back(std::move(result)); }));
  if (answers.size() != 1) return std::nullopt;
  return answers[0];
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
  // The first one stays.
  const auto answer = Call(provider, {"s", "get"});
  EXPECT_TRUE(answer && answer->output);
}

TEST(AsyncLocalProvider, ImplementationThatThrowsIsLoggedAndAnsweredOnce) {
  const auto logger = std::make_shared<MemoryLogger>();
  AsyncLocalProvider provider(logger);
  const auto throws = [](const Data::Value&, const ExecutionContextPtr&, MethodCompletion) {
    throw std::runtime_error("broken");
  };
  const auto answers_first = [](const Data::Value& input, const ExecutionContextPtr& context,
                                MethodCompletion completion) {
    Succeed(input, context, std::move(completion));
    throw std::runtime_error("late");
  };
  provider.AddInterface(Service("s", throws));
  provider.AddInterface(Service("t", answers_first));
  const auto broken = Call(provider, {"s", "get"});
  EXPECT_TRUE(broken && !broken->output && !broken->error);
  const auto late = Call(provider, {"t", "get"});
  EXPECT_TRUE(late && late->output);
  EXPECT_EQ(logger->text.str(), "s.get threw: brokent.get threw: late");
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
    const auto refused = Call(filter, {"guarded", "get"}, context);
    ASSERT_TRUE(refused && refused->error);
    EXPECT_EQ(refused->error->id, "com.tessel.orbi.std.errors.unauthorized");
    const auto passed = Call(filter, {"free", "get"}, context);
    EXPECT_TRUE(passed && passed->output);
  }
  const auto passed = Call(filter, {"guarded", "get"}, known);
  EXPECT_TRUE(passed && passed->output);
}

}  // namespace
}  // namespace Orbi::Core
