#pragma once

#include <string_view>

/// Tells the service manager how this process fares, by systemd's protocol (sd_notify(3)): lines of
/// the form NAME=VALUE in one datagram to the socket that the environment names in NOTIFY_SOCKET.
///
/// The unit needs Type=notify. It should have TimeoutStartSec=infinity if readiness may take
/// arbitrarily long, as when it waits for a port that another program holds.

/// Takes the socket's name out of the environment, so that children do not speak for this process.
/// Called at start-up, before threads are started.
void ServiceNotify_Init();

/// Sends the lines: "READY=1", "STATUS=one line for people", "STOPPING=1". Does nothing when nobody
/// listens, or when the datagram cannot be sent at once. Callable from any thread; allocates
/// nothing.
void ServiceNotify_Tell(std::string_view lines);
