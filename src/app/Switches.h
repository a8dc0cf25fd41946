#pragma once

// The whole program behind main: the first steps of every run, the walk through the switches, and the choice
// between the administrative tool and the daemon.

// Runs the program with main's arguments and returns its exit status: 0 for every administrative run, the
// daemon's own status otherwise. Once in a process, on its main thread.
int ostlerMain(int argc, char* argv[]);
