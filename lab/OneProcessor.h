#pragma once

namespace lab {

// Keeps this thread, and the threads and processes that it starts from here on, to the processor that it runs on. For
// two processes of which one always waits for the other: to wake somebody on another processor takes longer than what
// there is to do. Where it is refused, nothing changes.
void shareOneProcessor();

} // namespace lab
