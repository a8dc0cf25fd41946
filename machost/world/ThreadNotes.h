#pragma once

// Tells the world which threads of the program live, by the function that each was started with.

namespace machost::world {

// Where the program's header lies: functions are told by their distance from it. Before any thread is started.
void setProgramHeader(const void* header);

// On the thread itself, at its start and its end. The first answer of a world that does not want to know is the last.
void noteThreadStart(const void* function);
void noteThreadEnd();

} // namespace machost::world
