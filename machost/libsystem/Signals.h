#pragma once

// Signal numbers of the Mac, <sys/signal.h>.

namespace machost::libsystem {

// The counterpart of a number; 0 where the other system has none.
int macSignal(int host);
int hostSignal(int mac);

// Whether the calling thread is in a handler of the program's, with what it interrupted still under way below.
bool isInsideHandler();

} // namespace machost::libsystem
