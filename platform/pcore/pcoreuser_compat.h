#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "pcore/child.h"
#include "pcore/foreground.h"
#include "tesselibs/unique_fd.h"

/// Pipes to and from commands; see PcoreCtl::Spawn for what a command line and its child are.
///
/// A platform status is 0 for success or one of the system's error numbers. Callable from any
/// thread; a handle is used by one thread at a time.

/// A command and this process's end of the pipe to it. Destroying a handle that is not closed
/// closes the descriptor; the command's end is then taken care of in the background. An open handle
/// counts its command among those that EndForeground ends.
class PcoreuserCompat_Handle {
 public:
  /// The pipe's descriptor; -1 when the handle is not open.
  [[nodiscard]] int Descriptor() const { return pipe_.Get(); }

 private:
  friend int PcoreuserCompat_POpen(const std::string&, const char*, PcoreuserCompat_Handle&, int);
  friend int PcoreuserCompat_PClose(PcoreuserCompat_Handle&, int&);

  // The pipe is closed before the child is given up: it may wait for that.
  std::optional<PcoreCtl::Child> child_;
  std::optional<PcoreCtl::Foreground> foreground_;
  UniqueFd pipe_;
};

/// Starts the command with a pipe.
/// @param mode  "r" to read its standard output, "w" to write its standard input
/// @param standardError  descriptor that becomes its standard error; inherited when negative
/// @return 0 and an open handle, or why the command could not be started
[[nodiscard]] int PcoreuserCompat_POpen(const std::string& command, const char* mode,
                                        PcoreuserCompat_Handle& handle, int standardError = -1);

/// Closes the pipe and waits for the command's end.
/// @return 0 and the wait status (wait(2)), or why it could not be had
[[nodiscard]] int PcoreuserCompat_PClose(PcoreuserCompat_Handle& handle, int& waitStatus);

/// Writes the status's text, cut to the buffer's size and always terminated.
void PcoreuserStatus_CodeToString(int status, char* buffer, std::size_t size);
