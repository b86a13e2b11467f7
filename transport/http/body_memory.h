#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "transport/asio/deadline.h"

namespace Orbi::Transport::PicoHttp {

/// Shares out memory for the bodies of requests, none of whose senders is known before the body has
/// been read.
///
/// A body claims room for its whole length before it is read; what it holds in fact grows with what
/// arrives. Claims are admitted in the order in which they came, those that find no room wait
/// unread: so a body that is being read can always be read to its end. One party has at most a part
/// of the room. While others wait for what a body holds, it has to arrive at a speed: otherwise its
/// connection is given up, so that nobody waits without end.
///
/// Claims are made and ended on the thread that runs the I/O context.
class BodyMemory : public std::enable_shared_from_this<BodyMemory> {
 public:
  struct Limits {
    std::size_t total = std::size_t{64} << 20;    ///< in bytes
    std::size_t ofParty = std::size_t{16} << 20;  ///< in bytes
    /// How much of a body that keeps others waiting has to arrive in each period, in bytes.
    std::size_t leastArrival = std::size_t{64} << 10;
    std::chrono::milliseconds period{5000};
  };

  /// Bodies up to this length need no claim: they count as part of their connection.
  static constexpr std::size_t kUnclaimed = 1024;

  /// Whoever reads a body.
  class Reader {
   public:
    /// How much of the body there is.
    [[nodiscard]] virtual std::size_t Arrived() const = 0;
    /// Ends the reading, and the claim soon after.
    virtual void GiveUp() noexcept = 0;

   protected:
    ~Reader() = default;
  };
  class Claim;

  /// @param largest  the length of the longest body that is taken; at most the limits
  BodyMemory(boost::asio::io_context& context, std::size_t largest, const Limits& limits);
  BodyMemory(const BodyMemory&) = delete;
  BodyMemory& operator=(const BodyMemory&) = delete;

 private:
  struct Party {
    std::size_t held = 0;
    std::size_t waiting = 0;  ///< claims
    std::size_t claims = 0;
  };
  using Parties = std::map<std::string, Party>;
  using Claims = std::list<Claim*>;

  [[nodiscard]] bool IsFull() const { return held_ + largest_ > limits_.total; }
  [[nodiscard]] bool IsFull(const Party& party) const {
    return party.held + largest_ > limits_.ofParty;
  }
  void AdmitWaiting();
  void LookLater() noexcept;
  void Look();

  const std::size_t largest_;
  const Limits limits_;
  Parties parties_;  ///< those with claims
  Claims reading_;
  Claims waiting_;  ///< in the order of arrival
  std::size_t held_ = 0;
  boost::asio::steady_timer timer_;
  bool looking_ = false;
};

/// The room of one body, from when it is to be read until this object is destroyed.
class BodyMemory::Claim {
 public:
  /// @param length  of the body, or the largest when it is not known
  Claim(const std::shared_ptr<BodyMemory>& memory, const std::string& party, std::size_t length,
        Reader& reader);
  Claim(const Claim&) = delete;
  Claim& operator=(const Claim&) = delete;
  ~Claim();

  /// Whether the body may be read.
  [[nodiscard]] bool IsAdmitted() const { return admitted_; }

  /// Calls `handler` with an error code that does not matter once the claim is admitted, or when
  /// the time is over. The handler is kept by the I/O context.
  template <class Handler>
  void AsyncWait(std::chrono::nanoseconds patience, Handler&& handler) {
    wait_.emplace(memory_->timer_.get_executor(), Asio::DeadlineIn(patience));
    wait_->async_wait(std::forward<Handler>(handler));
  }

  /// The body has been read, and needs no more than `length` bytes from now on.
  void Complete(std::size_t length);

 private:
  friend class BodyMemory;

  void Admit();
  void Hold(std::size_t length);

  const std::shared_ptr<BodyMemory> memory_;
  const std::size_t length_;
  Reader& reader_;
  Parties::iterator party_;
  Claims place_;  ///< this claim's node, while it is in none of the memory's lists
  Claims::iterator node_;
  std::size_t held_ = 0;
  bool admitted_ = false;
  bool reading_ = false;
  std::optional<std::size_t> arrivedBefore_;  ///< at the last look
  std::optional<boost::asio::steady_timer> wait_;
};

}  // namespace Orbi::Transport::PicoHttp
