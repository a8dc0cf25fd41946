#pragma once

namespace testsupport {

// Moves this process into a network of its own, with nothing but a loopback interface. False where the system
// has no such thing or refuses it.
bool enterOwnNetwork();

} // namespace testsupport
