#pragma once

/// Closes to other users what this process and its children make from now on, and the folders of
/// the host's state that are there already. What a host without tmpfiles.d(5) left open is open no
/// longer. Called once, before there is another thread.
///
/// Files that are meant for everybody get their modes from who writes them.
void MakeStatePrivate();
