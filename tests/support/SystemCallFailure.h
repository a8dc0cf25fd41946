#pragma once

// System calls that the kernel refuses. Linux alone can do that.

namespace testsupport {

// From now on the system call `number` fails with `error` on this thread when its first argument is
// `firstArgument`. Cannot be taken back, so for a forked child alone.
bool failSystemCall(int number, int error, unsigned firstArgument);

} // namespace testsupport
