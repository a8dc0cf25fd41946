#pragma once

// The one log of the process: numbered text files of limited size, written line by line. There are no
// levels; a caller that wants one tests it first. Logging never fails visibly. Any thread may log; without
// makeLogThreadSafe the lines of several threads meet unlocked, each a single append.

// Writes one line with the thread's number and the local time in front.
void logs(const char* text);

// Formats and writes one line. An overload beside the C library's float logf(float).
void logf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The stem of the file names and the folder that they are in. The text is not copied and must outlive the
// log. Without a folder the files go to the working directory; without a stem the process name is used. Others may
// write to the folder: whatever else they put in the place of a file is not written to, and its lines are lost.
void setLogName(const char* name);
void setLogDirectory(const char* directory);

// Limits of one file and of the highest index; values below 1 change nothing.
void setMaxLogSize(int kilobytes);
void setMaxLogCount(int count);

// Prints each line to standard output as well.
void setLogEcho(bool echo);

// Gives the log a lock. For the start of the process.
void makeLogThreadSafe();

// Prints bytes in hexadecimal to standard output, `perLine` to a line, with a newline at the end.
void printDumpBytes(const char* bytes, int length, int perLine);
