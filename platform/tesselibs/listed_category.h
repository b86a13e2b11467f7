#pragma once

#include <cstddef>
#include <span>
#include <string>

#include <boost/system/error_code.hpp>

/// An error category whose codes 1, 2, 3, ... have the messages of a list. Safe to use from any
/// thread.
class ListedCategory final : public boost::system::error_category {
 public:
  /// @param messages  must outlive the category, as the other texts
  /// @param other  the message of all other codes
  constexpr ListedCategory(const char* name, std::span<const char* const> messages,
                           const char* other)
      : name_(name), messages_(messages), other_(other) {}

  const char* name() const noexcept override { return name_; }
  std::string message(int code) const override {
    if (code < 1 || static_cast<std::size_t>(code) > messages_.size()) return other_;
    return messages_[static_cast<std::size_t>(code) - 1];
  }

 private:
  const char* name_;
  std::span<const char* const> messages_;
  const char* other_;
};
