#pragma once

#include <string>

#include "configstore/store.h"
#include "configuration/config_manager_task.h"
#include "orbi/data/value.h"

namespace LifeCycle {

/// Sets one key of the host's configuration.
class SetTask final : public ConfigManagerTaskImpl {
 public:
  SetTask(std::string taskId, RyxConfigStore::KeyAddress address, Orbi::Data::Structure value);

 protected:
  [[nodiscard]] Conversion Work() override;
  [[nodiscard]] Orbi::Data::ErrorValue Translate(const std::exception& failure) const override;

 private:
  const RyxConfigStore::KeyAddress address_;
  const Orbi::Data::Value value_;
};

/// Takes back what was set for one key.
class DeleteTask final : public ConfigManagerTaskImpl {
 public:
  DeleteTask(std::string taskId, RyxConfigStore::KeyAddress address);

 protected:
  [[nodiscard]] Conversion Work() override;
  [[nodiscard]] Orbi::Data::ErrorValue Translate(const std::exception& failure) const override;

 private:
  const RyxConfigStore::KeyAddress address_;
};

/// The error for an exception of a call of the configuration manager on one key: an invalid
/// argument where the caller is to blame.
/// @param id  of the message for any other failure
[[nodiscard]] Orbi::Data::ErrorValue KeyError(const std::exception& failure, const char* id);

}  // namespace LifeCycle
