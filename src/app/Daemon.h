#pragma once

// The life of the daemon: its start in a fixed order, the signals that end it, and what it does when another
// user comes to the console.

// Runs the daemon on the main thread, which becomes the inbound listener. Comes back only when the inbound
// channel cannot be set up; the result is the exit status.
int daemonStart();

// Ends the process on SIGTERM and SIGINT; any other signal is printed and ignored. Does its work in signal
// context on purpose, since it ends the process; on the thread that waits for both, which has nothing else to do.
// Where the agent's link is not up yet it waits for that, and packets go on getting their verdicts meanwhile.
void signalHandler(int signal);

// Callback of the login watch, on its thread: stores the console user and reports the logon from a thread of
// its own. The argument is ignored.
void loginChanged(const char* name);

// Background task: reports the cached user to the policy agent.
void* setUserLogonThread(void* ignored);
