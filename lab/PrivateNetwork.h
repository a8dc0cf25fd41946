#pragma once

namespace lab {

// Puts the process into a network of its own, with nothing in it but a loopback interface, where the system
// lets it; otherwise the process stays where it is. To be called before any thread is started. True when the
// network is private.
bool enterPrivateNetwork();

} // namespace lab
