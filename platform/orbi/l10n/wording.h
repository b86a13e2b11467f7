#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orbi/data/value.h"
#include "orbi/l10n/bundle.h"

namespace Orbi::L10n {

/// What becomes of a message that no bundle has a text for.
enum class Unworded {
  kLeft,         ///< it stays as it is
  kDefaultText,  ///< its default text is told for the localised one, unless it has one
};

/// Words the messages in one value. Used by one thread.
class Wording {
 public:
  using Texts = std::shared_ptr<const LocalizationBundle::Texts>;

  /// @param texts  the closest to the client's locale first
  Wording(std::vector<Texts> texts, Unworded unworded)
      : texts_(std::move(texts)), unworded_(unworded) {}

  /// Recurses as deep as the value nests.
  void Apply(Data::Value& value);
  void Apply(Data::ErrorValue& error);

  /// Whether a text did not fit its message's arguments.
  [[nodiscard]] bool misfit() const { return misfit_; }

 private:
  void ApplyToMessage(Data::Structure& message);
  [[nodiscard]] std::string TextOf(const std::string& id, const Data::List* args);

  const std::vector<Texts> texts_;
  const Unworded unworded_;
  bool misfit_ = false;
};

}  // namespace Orbi::L10n
