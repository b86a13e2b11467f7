#pragma once

#include <string>
#include <vector>

#include "pcore/child.h"
#include "pcore/end_observer.h"

namespace PcoreCtl {

/// How a child process differs from the default: inherited streams, the resource group of its
/// command line acted upon.
struct SpawnOptions {
  int standardInput = -1;   ///< descriptor that becomes the child's standard input
  int standardOutput = -1;  ///< descriptor that becomes the child's standard output
  int standardError = -1;   ///< descriptor that becomes the child's standard error
  bool newSession = false;  ///< starts it in a session and process group of its own
  /// Ends it with SIGTERM should the thread that calls Spawn end, as when this process is killed.
  bool endsWithThread = false;
  bool discardStreams = false;
  bool changeToRoot = false;
  bool honourGroup = true;
  bool logUsage = true;                     ///< when the resource group says "stats"
  std::vector<std::string> variables = {};  ///< of its environment, "NAME=value", in place of ours
};

/// Starts the command of a command line (see SplitCommandLine; a resource-group word is removed).
///
/// The first word is the path of the program; there is no search along PATH. The child shares this
/// process's memory until it has begun its program, so that starting it costs the same however
/// large this process is; the calling thread waits that long. It gets:
///
/// - standard input, output and error and no other descriptor,
/// - default signal dispositions and an empty signal mask,
/// - this process's environment, with the system's default PATH when that has none, and the
///   variables of the options,
/// - the memory limit of its resource group: as a control group where the host delegates one, else
///   as a limit on its data segment (RLIMIT_DATA), which shared libraries and mapped files do not
///   count against.
///
/// Callable from any thread.
/// @throws HostCtl::Lib::HostCtlException when the command line is malformed, the program cannot be
///         executed or the system refuses a new process; no process remains then
Child Spawn(const std::string& commandLine, const SpawnOptions& options);

/// Starts the command as Spawn does, in a session of its own and not as a child of this process.
/// @param onEnd  told of the end of the started process
void SpawnDetached(const std::string& commandLine, const SpawnOptions& options,
                   EndObserver onEnd = {});

}  // namespace PcoreCtl
