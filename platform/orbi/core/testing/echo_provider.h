#pragma once

#include <utility>

#include "orbi/core/provider.h"

namespace Orbi::Core {

/// For tests: the end of a provider chain, which answers with the input that reached it.
class EchoProvider : public AsyncApiProvider {
 public:
  void Invoke(const MethodIdentifier&, Data::Value input, ExecutionContextPtr,
              MethodCompletion completion) override {
    completion(MethodResult::Output(std::move(input)));
  }
};

/// For tests: calls a provider that completes before it returns.
inline MethodResult Call(AsyncApiProvider& provider, const MethodIdentifier& method,
                         Data::Value input, ExecutionContextPtr context) {
  MethodResult result;
  provider.Invoke(method, std::move(input), std::move(context),
                  MethodCompletion([&result](MethodResult r) { result = std::move(r); }));
  return result;
}

}  // namespace Orbi::Core
