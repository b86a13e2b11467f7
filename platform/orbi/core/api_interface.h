#pragma once

#include <functional>
#include <string>
#include <vector>

#include "orbi/core/provider.h"

/// A service as the local provider holds it: its operations with what they take, answer and do.
namespace Orbi::Core {

struct FieldDefinition {
  std::string name;
  std::string type;  ///< in the metamodel's notation, for example "optional<string>"
};

/// What introspection tells of an operation.
struct OperationDefinition {
  std::string name;
  std::vector<FieldDefinition> input;
  bool anyInput = false;  ///< the input is taken as it is
  std::string output;
  std::vector<std::string> errors;
};

struct Operation {
  /// Called on any thread, and from several at once; completes at any later time, on any thread.
  using Invoker = std::function<void(const Data::Value& input, const ExecutionContextPtr& context,
                                     MethodCompletion completion)>;
  OperationDefinition definition;
  Invoker invoke;
};

struct ApiInterface {
  std::string identifier;             ///< "com.tessel.cis.tasks"
  std::vector<Operation> operations;  ///< in interface order; names are unique

  /// @return nullptr when there is no such operation
  [[nodiscard]] const Operation* Find(std::string_view operation) const;
};

}  // namespace Orbi::Core
