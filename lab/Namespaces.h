#pragma once

// Namespaces of this process's own, with the rights of root inside where the process has none outside.

namespace lab {

// Leaves the namespaces of these kinds (CLONE_NEWNET, CLONE_NEWNS) for new ones. False with errno, and nothing changed,
// where that cannot be. To be called while the process has one thread.
bool unshareAsRoot(int kinds);

} // namespace lab
