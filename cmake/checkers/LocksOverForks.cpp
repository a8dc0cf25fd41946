// Linked into every program that is built for the address and leak checks. A child that is forked while another thread
// is inside the checker's allocator, or while one starts or ends, finds those locks held for ever, and waits at its next
// allocation or at its exit. The C library takes its own allocator's locks around a fork; the checker of this compiler
// has functions for that, for its search for leaks, but does not call them at a fork.

#include <pthread.h>

#include <cstdlib>

namespace __lsan {
void LockThreadRegistry();
void UnlockThreadRegistry();
void LockAllocator();
void UnlockAllocator();
} // namespace __lsan

namespace __sanitizer {
void StackDepotLockAll();
void StackDepotUnlockAll();
} // namespace __sanitizer

namespace {

// In the order in which the search for leaks takes them.
void take() {
    __lsan::LockThreadRegistry();
    __lsan::LockAllocator();
    __sanitizer::StackDepotLockAll();
}

void giveBack() {
    __sanitizer::StackDepotUnlockAll();
    __lsan::UnlockAllocator();
    __lsan::UnlockThreadRegistry();
}

// Before all else, since what is registered first is taken last: the owner of another lock may allocate.
__attribute__((constructor(101))) void holdThemOverForks() {
    if (pthread_atfork(take, giveBack, giveBack) != 0) std::abort();
}

} // namespace
