#include "authn/authentication_thread.h"

#include <memory>
#include <system_error>
#include <utility>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "tesselibs/signals_blocked.h"

namespace Host::Settings::SettingsApi::Authn {

/// Who is next. A peer is among those that are ready while it has checks that wait and none that is
/// being made or has yet to be answered.
struct AuthenticationThread::Turns {
  std::mutex mutex;  ///< guards what follows
  std::condition_variable changed;
  std::map<std::string, std::deque<Waiting>> peers;  ///< with what waits; empty while one is made
  std::deque<std::string> ready;
  std::size_t waiting = 0;
  bool stopping = false;

  /// Ends the turn of a peer.
  void Release(const std::string& peer) {
    const std::lock_guard lock(mutex);
    const auto place = peers.find(peer);
    if (place == peers.end()) return;
    if (place->second.empty()) {
      peers.erase(place);
      return;
    }
    ready.push_back(peer);
    changed.notify_one();
  }
};

AuthenticationThread::AuthenticationThread(boost::asio::io_context& io, const Limits& limits)
    : io_(io), limits_(limits), turns_(std::make_shared<Turns>()) {}

bool AuthenticationThread::Submit(const std::string& peer, Check check, Done done) {
  const std::lock_guard lock(turns_->mutex);
  if (turns_->stopping || turns_->waiting >= limits_.waiting) return false;
  if (!thread_.joinable()) {
    try {
      const SignalsBlocked blocked;
      thread_ = std::thread([turns = turns_, &io = io_, failureTime = limits_.failureTime] {
        Run(turns, io, failureTime);
      });
    } catch (const std::system_error&) {
      return false;
    }
  }
  const auto [place, isNew] = turns_->peers.try_emplace(peer);
  if (place->second.size() >= limits_.waitingOfPeer) return false;
  place->second.push_back({std::move(check), std::move(done)});
  ++turns_->waiting;
  if (isNew) {
    turns_->ready.push_back(peer);
    turns_->changed.notify_one();
  }
  return true;
}

void AuthenticationThread::Stop() {
  std::map<std::string, std::deque<Waiting>> dropped;
  std::thread thread;
  {
    const std::lock_guard lock(turns_->mutex);
    turns_->stopping = true;
    turns_->ready.clear();
    dropped.swap(turns_->peers);
    thread = std::move(thread_);
    turns_->changed.notify_one();
  }
  if (thread.joinable()) thread.join();
}

void AuthenticationThread::Run(const std::shared_ptr<Turns>& turns, boost::asio::io_context& io,
                               std::chrono::milliseconds failureTime) {
  for (;;) {
    std::unique_lock lock(turns->mutex);
    turns->changed.wait(lock, [&] { return turns->stopping || !turns->ready.empty(); });
    if (turns->stopping) return;
    std::string peer = std::move(turns->ready.front());
    turns->ready.pop_front();
    auto& queue = turns->peers.at(peer);
    Waiting current = std::move(queue.front());
    queue.pop_front();
    --turns->waiting;
    lock.unlock();

    const auto answerAt = std::chrono::steady_clock::now() + failureTime;
    if (current.check()) {
      current.done(true);
      turns->Release(peer);
      continue;
    }
    const auto timer = std::make_shared<boost::asio::steady_timer>(io, answerAt);
    boost::asio::post(io, [turns, timer, peer = std::move(peer), done = std::move(current.done)] {
      timer->async_wait([turns, timer, peer, done](const boost::system::error_code&) {
        done(false);
        turns->Release(peer);
      });
    });
  }
}

}  // namespace Host::Settings::SettingsApi::Authn
