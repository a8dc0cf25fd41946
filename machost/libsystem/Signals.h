#pragma once

// Signal numbers of the Mac, <sys/signal.h>.

namespace machost::libsystem {

// The counterpart of a number; 0 where the other system has none.
int macSignal(int host);
int hostSignal(int mac);

} // namespace machost::libsystem
