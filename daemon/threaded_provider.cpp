#include "daemon/threaded_provider.h"

#include <memory>
#include <utility>

namespace Host::Settings::SettingsApi {
namespace {

struct Call {
  Orbi::Core::AsyncApiProviderPtr next;
  Orbi::Core::MethodIdentifier method;
  Orbi::Data::Value input;
  Orbi::Core::ExecutionContextPtr context;
  Orbi::Core::MethodCompletion completion;
};

}  // namespace

ThreadedProvider::ThreadedProvider(Orbi::Core::AsyncApiProviderPtr next,
                                   std::set<std::string> waiting, RequestThreads& threads)
    : next_(std::move(next)), waiting_(std::move(waiting)), threads_(threads) {}

void ThreadedProvider::Invoke(const Orbi::Core::MethodIdentifier& method, Orbi::Data::Value input,
                              Orbi::Core::ExecutionContextPtr context,
                              Orbi::Core::MethodCompletion completion) {
  if (!waiting_.contains(method.service)) {
    next_->Invoke(method, std::move(input), std::move(context), std::move(completion));
    return;
  }
  const auto call = std::make_shared<Call>(
      Call{next_, method, std::move(input), std::move(context), std::move(completion)});
  const bool taken = threads_.Submit(call->context->peer.party, [call] {
    call->next->Invoke(call->method, std::move(call->input), std::move(call->context),
                       std::move(call->completion));
  });
  if (!taken) call->completion(Orbi::Core::MethodResult::Error(Orbi::Core::Overloaded()));
}

}  // namespace Host::Settings::SettingsApi
