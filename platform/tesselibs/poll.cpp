#include "tesselibs/poll.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>

namespace {

// The main thread's mask before Poll_InitDefault. Used by the main thread only.
sigset_t originalMask;

}  // namespace

void Poll_InitDefault() {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, &originalMask);
}

void Poll_Loop(bool looping, const volatile char* exit) {
  sigset_t waiting;
  pthread_sigmask(SIG_SETMASK, nullptr, &waiting);
  sigdelset(&waiting, SIGTERM);
  const timespec noWait{};
  // ppoll changes the mask and starts to wait in one step: a signal that comes between the test of
  // the flag and the wait ends the wait.
  while (*exit == 0) {
    ppoll(nullptr, 0, looping ? nullptr : &noWait, &waiting);
    if (!looping) return;
  }
}

void Poll_Exit() { pthread_sigmask(SIG_SETMASK, &originalMask, nullptr); }
