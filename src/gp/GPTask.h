#pragma once

// Runs a command line as a child process and brings back its output, or the report of its failure. State is
// on the stack of the run, so any thread may run tasks.

#include "gp/GPObject.h"

class GPArray;
class GPString;

class GPTask : public GPObject {
public:
    // waitOn comes before run.
    GPTask() = default;

    // Whether run waits for the child and brings back its output.
    void waitOn(bool wait);

    // Kept for callers; nothing reads it.
    void showWindow(bool show);

    // Starts the command. The result belongs to the caller: the output, text that tells why the command
    // could not be started, or null. Without waiting the result is null once the command runs. A child that
    // writes more than a pipe holds, or a multiple of 4096 bytes, blocks the caller.
    GPString* run(const char* commandLine);

    // Makes a task, runs it and returns what run returned.
    static GPString* task(const char* commandLine, bool wait, bool show);

    // The words of a command line, as a new array of GPStrings. A word that begins with a quote reaches to
    // the next such quote, where there is one; there is no escape character.
    static GPArray* splitCommandLine(const char* commandLine);

private:
    bool wait_ = false;
    bool show_ = false;
};
