#pragma once

// A network of the test's own, in which every port is free, a disk of the test's own, which is soon full, and a
// file of the system that the test plays.

#include <sys/types.h>

#include <functional>
#include <string>

namespace testsupport {

// As fork, for a process of one thread and a child that makes a user namespace, which none with two can: the thread
// check gives each child of fork a thread of its own.
pid_t forkAlone();

enum class NamespaceResult { passed, failed, unavailable };

// Runs `body` in a forked child that has a network namespace of its own, with only the loopback interface
// up. `failed` when the child's test has failures, crashes or takes over 20 seconds; `unavailable` when this
// machine grants no namespace.
NamespaceResult runInNetworkNamespace(const std::function<void()>& body);

// Runs `body` in a forked child that sees an empty disk with room for `bytes`, whole pages, at `folder`.
NamespaceResult runOnSmallDisk(const std::string& folder, std::size_t bytes,
                               const std::function<void()>& body);

// Runs `body` in a forked child that sees the file `played` at `path`, where some file must be.
NamespaceResult runWithPlayedFile(const std::string& path, const std::string& played,
                                  const std::function<void()>& body);

} // namespace testsupport
