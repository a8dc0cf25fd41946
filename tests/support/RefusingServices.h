#pragma once

// Services that fail the test when they are called: nothing that a test forgot to play reaches the real
// system.

namespace testsupport {

// Puts a refusing implementation of every replaceable service in force; the clock becomes the ManualClock.
void installRefusingServices();

} // namespace testsupport
