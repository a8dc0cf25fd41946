#pragma once

// Fixed ports for a test. The process gets a network of its own, with nothing but a loopback interface, where
// the system lets it make one; elsewhere it waits for a lock that all such tests on the machine share.

namespace testsupport {

// Moves the process into a network of its own, or takes the lock; either lasts until the process ends. Called
// by the test's main thread before any other thread is started; a second call does nothing.
void claimFixedPorts();

} // namespace testsupport
