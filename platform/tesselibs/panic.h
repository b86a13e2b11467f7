#pragma once

/// Ends the process after a fault that it cannot go on with: logs the text at level 0, writes it to
/// standard error, flushes the log for at most two seconds and aborts. Callable from any thread.
[[noreturn]] void Panic(const char* format, ...) __attribute__((format(printf, 1, 2)));
