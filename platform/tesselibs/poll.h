#pragma once

/// The main thread's poll loop, which waits for a flag that a SIGTERM handler sets.
///
/// The order that leaves no moment in which the signal is lost: install the handler, call
/// Poll_InitDefault, start threads, call Poll_Loop. Until Poll_InitDefault the signal is handled at
/// once by the main thread; from then on it is blocked there and, by inheritance, in every thread
/// started later; it stays pending until Poll_Loop lets it in. Threads started earlier must have
/// blocked it themselves, as the log's writer does.
///
/// All three functions are called from the main thread.

/// Blocks SIGTERM in the calling thread.
void Poll_InitDefault();

/// Waits with SIGTERM let in until the byte at `exit` is non-zero, which a signal handler that runs
/// on this thread makes so. Returns at once when it is already.
/// @param looping  false lets pending signals in once, without waiting
void Poll_Loop(bool looping, const volatile char* exit);

/// Gives the calling thread back the signal mask that it had before Poll_InitDefault.
void Poll_Exit();
