#pragma once

// The signals that end the process, SIGTERM and SIGINT, kept away from every thread but one that does nothing but
// wait for them. Elsewhere the handler could interrupt a thread that holds what it needs itself, such as the C
// library's locks inside fork, and would wait for that for ever.

namespace platform {

// From now on `handler` is called for both signals, in signal context, on a thread that is made here for them alone;
// while it runs, the other signal waits. Both are blocked in the calling thread, and so in all that it starts; a
// thread of before that takes one passes it on. Without a new thread the calling one takes both. Once in a process,
// on the main thread.
void handleEndSignals(void (*handler)(int));

// In a forked child, ahead of its program: lets all signals in, and both of these end the child. Safe between fork
// and exec.
void restoreChildSignals();

} // namespace platform
