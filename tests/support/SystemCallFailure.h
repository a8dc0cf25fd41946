#pragma once

// System calls that the kernel refuses. Linux alone can do that.

namespace testsupport {

// From now on the system call `number` fails with `error` on this thread, and in what it starts, when its argument at
// `place`, counted from 0, is `argument`. Cannot be taken back, so for a forked child alone.
bool failSystemCall(int number, int error, unsigned argument, unsigned place = 0);

} // namespace testsupport
