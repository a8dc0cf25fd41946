#pragma once

// What the calls of GPMutex's lock and unlock are told to, in a program that is linked with --wrap of both.

class GPMutex;

namespace testsupport {

// On the thread that calls: right before it takes a lock, right behind, and right before it frees one.
void noteLockWanted(const GPMutex* mutex);
void noteLockTaken(const GPMutex* mutex);
void noteLockFreed(const GPMutex* mutex);

} // namespace testsupport
