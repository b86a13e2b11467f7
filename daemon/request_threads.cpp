#include "daemon/request_threads.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <new>
#include <utility>

#include "tesselibs/log.h"
#include "tesselibs/signals_blocked.h"

namespace Host::Settings::SettingsApi {
namespace {

void Do(const RequestThreads::Work& work) {
  try {
    work();
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "[%s]: Operation failed: %s\n", "RequestThreads", e.what());
  } catch (...) {
    Log_Level(LogLevel::kCritical, "[%s]: Operation failed: %s\n", "RequestThreads", "unknown");
  }
}

}  // namespace

RequestThreads::RequestThreads(const Limits& limits) : limits_(limits) {
  ended_.reserve(limits_.threads);  // a thread that ends must not need memory for it
}

bool RequestThreads::Submit(const std::string& party, Work work) {
  std::list<Waiting> arrival;
  std::vector<pthread_t> ended;
  bool accepted = false;
  try {
    arrival.push_back({{}, std::move(work)});
    const Lock lock(mutex_);
    ended = TakeEnded();
    const auto place = parties_.try_emplace(party).first;
    arrival.front().party = place;
    accepted = Enqueue(arrival);
    Forget(place);
  } catch (const std::bad_alloc&) {
    // There is no place for the work either.
  }
  Join(ended);
  return accepted;
}

bool RequestThreads::Enqueue(std::list<Waiting>& arrival) {
  Party& party = arrival.front().party->second;
  if (stopping_ || waiting_.size() >= limits_.waiting || party.waiting >= limits_.waitingOfParty)
    return false;
  waiting_.splice(waiting_.end(), arrival);
  ++party.waiting;
  // A thread that was woken for other work counts as idle until it has taken that.
  if (CountRunnable() <= idle_) {
    workCame_.notify_one();
    return true;
  }
  if (threads_ == limits_.threads || StartThread() || threads_ > 0) return true;
  arrival.splice(arrival.end(), waiting_, std::prev(waiting_.end()));
  --party.waiting;
  return false;
}

void RequestThreads::Stop() {
  std::list<Waiting> dropped;
  std::vector<pthread_t> ended;
  {
    Lock lock(mutex_);
    stopping_ = true;
    dropped.swap(waiting_);
    workCame_.notify_all();
    threadEnded_.wait(lock, [this] { return threads_ == 0; });
    ended = TakeEnded();
  }
  Join(ended);
}

bool RequestThreads::StartThread() {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  const SignalsBlocked blocked;
  pthread_t thread;
  const bool started = pthread_attr_setstacksize(&attributes, limits_.stackSize) == 0 &&
                       pthread_create(&thread, &attributes, &Main, this) == 0;
  pthread_attr_destroy(&attributes);
  if (started) ++threads_;
  return started;
}

void* RequestThreads::Main(void* self) {
  auto& threads = *static_cast<RequestThreads*>(self);
  Lock lock(threads.mutex_);
  threads.Run(lock);
  --threads.threads_;
  threads.ended_.push_back(pthread_self());
  threads.threadEnded_.notify_all();
  return nullptr;
}

void RequestThreads::Run(Lock& lock) {
  const auto mayGoOn = [this] { return stopping_ || FindNext() != waiting_.end(); };
  for (;;) {
    ++idle_;
    const bool goesOn = workCame_.wait_for(lock, limits_.idleTime, mayGoOn);
    --idle_;
    if (!goesOn || stopping_) return;
    const auto next = FindNext();
    const auto party = next->party;
    Work work = std::move(next->work);
    waiting_.erase(next);
    --party->second.waiting;
    ++party->second.running;

    lock.unlock();
    Do(work);
    work = nullptr;  // what it holds may take its time to go
    lock.lock();

    --party->second.running;
    Forget(party);
  }
}

/// The first work of a party that does not hold its part of the threads.
std::list<RequestThreads::Waiting>::iterator RequestThreads::FindNext() {
  return std::ranges::find_if(waiting_, [this](const Waiting& waiting) {
    return waiting.party->second.running < limits_.threadsOfParty;
  });
}

/// How much of the work that waits could run now, if there were threads enough.
std::size_t RequestThreads::CountRunnable() const {
  std::size_t count = 0;
  for (const auto& [name, party] : parties_)
    count += std::min(party.waiting, limits_.threadsOfParty - party.running);
  return count;
}

void RequestThreads::Forget(Parties::iterator party) {
  if (party->second.running == 0 && party->second.waiting == 0) parties_.erase(party);
}

std::vector<pthread_t> RequestThreads::TakeEnded() {
  std::vector<pthread_t> taken = ended_;
  ended_.clear();
  return taken;
}

/// Threads that have ended but for their last instructions.
void RequestThreads::Join(const std::vector<pthread_t>& threads) {
  for (const pthread_t thread : threads) pthread_join(thread, nullptr);
}

}  // namespace Host::Settings::SettingsApi
