#pragma once

#include <unistd.h>

#include <utility>

/// Owns a file descriptor, or none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset();
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  ~UniqueFd() { Reset(); }

  void Reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  [[nodiscard]] int Get() const { return fd_; }
  /// Gives the descriptor to the caller.
  [[nodiscard]] int Release() { return std::exchange(fd_, -1); }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};
