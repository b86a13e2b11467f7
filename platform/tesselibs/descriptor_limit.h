#pragma once

#include <sys/resource.h>

#include <cstddef>

/// How many descriptors this process may have open (RLIMIT_NOFILE). The soft limit that a process
/// starts with is low for the sake of programs that use select(2), which does not bear more; one
/// that does not may have what the hard limit allows, but its children start with the old one.

/// Raises the soft limit to the hard one, to 16,384 at most. Called once, before threads are
/// started.
/// @return the soft limit in force
std::size_t DescriptorLimit_Raise();

/// The limit that children are to start with: the soft one before it was raised. Async-signal-safe;
/// callable from any thread.
rlimit DescriptorLimit_OfChildren();
