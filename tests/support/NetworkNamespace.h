#pragma once

// A network of the test's own, in which every port is free.

#include <functional>

namespace testsupport {

enum class NamespaceResult { passed, failed, unavailable };

// Runs `body` in a forked child that has a network namespace of its own, with only the loopback interface
// up. `failed` when the child's test has failures, crashes or takes over 20 seconds; `unavailable` when this
// machine grants no namespace.
NamespaceResult runInNetworkNamespace(const std::function<void()>& body);

} // namespace testsupport
