#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Host::Settings::SettingsApi {

/// The threads that operations run on, so that the thread which carries the connections never
/// waits for a helper, a lock or a file.
///
/// Threads are made when work comes and end when there has been none for a while: a daemon that
/// nobody asks anything has none. Work is taken in the order of its arrival, but one party
/// holds at most a part of the threads: whatever it asks for, the others find one. All signals are
/// blocked on these threads.
///
/// All members may be called from any thread, but Stop from one only.
class RequestThreads {
 public:
  /// An exception out of it is logged and goes no further.
  using Work = std::function<void()>;

  struct Limits {
    std::size_t threads = 8;
    std::size_t threadsOfParty = 4;
    std::size_t waiting = 256;
    std::size_t waitingOfParty = 64;
    std::chrono::milliseconds idleTime{30'000};  ///< after which a thread ends
    std::size_t stackSize = kStackSize;          ///< in bytes
  };

  RequestThreads() : RequestThreads(Limits{}) {}
  explicit RequestThreads(const Limits& limits);
  RequestThreads(const RequestThreads&) = delete;
  RequestThreads& operator=(const RequestThreads&) = delete;
  ~RequestThreads() { Stop(); }

  /// Has the work done on one of the threads.
  /// @param party  on whose behalf (see Orbi::Core::Peer)
  /// @return false when as much waits already as may, when there is no thread and none can be made,
  ///         when there is no memory, or after Stop: nothing comes of the work then
  [[nodiscard]] bool Submit(const std::string& party, Work work);

  /// Drops the work that waits and returns when what runs has ended. Work that is submitted later
  /// is refused.
  void Stop();

 private:
  // Instrumented code needs several times the stack.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  static constexpr std::size_t kStackSize = std::size_t{4} << 20;
#else
  static constexpr std::size_t kStackSize = std::size_t{256} << 10;
#endif

  struct Party {
    std::size_t running = 0;
    std::size_t waiting = 0;
  };
  using Parties = std::map<std::string, Party>;
  struct Waiting {
    Parties::iterator party;
    Work work;
  };
  using Lock = std::unique_lock<std::mutex>;

  // With the mutex held, which Run gives up while it works or waits.
  [[nodiscard]] bool Enqueue(std::list<Waiting>& arrival);
  [[nodiscard]] bool StartThread();
  void Run(Lock& lock);
  [[nodiscard]] std::list<Waiting>::iterator FindNext();
  [[nodiscard]] std::size_t CountRunnable() const;
  void Forget(Parties::iterator party);
  [[nodiscard]] std::vector<pthread_t> TakeEnded();

  static void* Main(void* self);
  static void Join(const std::vector<pthread_t>& threads);

  const Limits limits_;

  std::mutex mutex_;  ///< guards what follows
  std::condition_variable workCame_;
  std::condition_variable threadEnded_;
  Parties parties_;  ///< those with work
  std::list<Waiting> waiting_;
  std::size_t threads_ = 0;
  std::size_t idle_ = 0;          ///< of the threads
  std::vector<pthread_t> ended_;  ///< threads to be joined
  bool stopping_ = false;
};

}  // namespace Host::Settings::SettingsApi
