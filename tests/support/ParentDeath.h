#pragma once

// No process that a test forks outlives it: neither a daemon, which would go on retrying on its dead sockets,
// nor a program that the daemon runs.

namespace testsupport {

// From now on every process that is forked from this one, and every one forked from those, is killed when the
// thread that forked it goes. Programs that they become are killed too. Once, at the start of a test program.
void endForksWithTheirParents();

} // namespace testsupport
