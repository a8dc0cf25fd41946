#pragma once

// The groups of rows. Each runs in a process of its own, since the program's state is made once for a process.

#include "bench/Table.h"

namespace bench {

// The listener over its socket, against the bare echo.
void listenerRows(const Effort& effort);

// The listener while it has many records that live and run out.
void liveRecordRows(const Effort& effort);

// What one operation on a record costs among 100 and among 100,000.
void recordRows(const Effort& effort);

// The readers of names and URLs, against a copy and against the fastest readers of the bench.
void readerRows(const Effort& effort);

// Questions to the agent and back, against raw frames.
void queryRows(const Effort& effort);

// Connections that are opened while the agent is silent.
void silentAgentRows(const Effort& effort);

// The settings and the XML reader, against a library.
void documentRows(const Effort& effort);

// Texts that were made to be slow, against texts of half the size.
void hostileRows(const Effort& effort);

// A log line, against its system calls.
void logRows(const Effort& effort);

// Whole programs, against a bare one.
void programRows(const Effort& effort);

// The replay of a capture, against the verdict loop.
void replayRows(const Effort& effort);

// Not rows: the cost of a packet by the number of records, and of hostile texts by their size, for the plots.
void recordCurve(const Effort& effort);
void hostileCurves(const Effort& effort);

} // namespace bench
