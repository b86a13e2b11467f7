#pragma once

#include <functional>
#include <string>
#include <vector>

#include "orbi/core/api_interface.h"
#include "orbi/data/value.h"
#include "orbi/metadata/process_container.h"

/// Interfaces that answer at once from what they are given, without a service behind them.
namespace Orbi::Provider::Metadata {

/// Answers a call from its arguments, in the order of the operation's input fields.
using Answer = std::function<Core::MethodResult(const std::vector<std::string>& arguments)>;

/// An operation whose input fields are all strings. An input that does not fit is answered with
/// invalid_argument.
[[nodiscard]] Core::Operation ReadOnlyOperation(const std::string& name,
                                                const std::vector<std::string>& fields,
                                                const std::string& output, Answer answer);

/// The interface `identifier` with list(), the identifiers of what is described, and get(id), one
/// description: the structure `identifier`.info.
/// @param descriptions  must outlive the interface
[[nodiscard]] Core::ApiInterface DescriptionsInterface(const std::string& identifier,
                                                       const Descriptions& descriptions);

/// A call's end in not_found with a message of the framework's catalogue.
[[nodiscard]] Core::MethodResult NotFound(std::string_view message, std::vector<std::string> args);

[[nodiscard]] Data::Value ListOfTexts(const std::vector<std::string>& texts);

}  // namespace Orbi::Provider::Metadata
