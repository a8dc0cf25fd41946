#pragma once

// The shipped program as the Mac has it: a Mach-O that runs under machost, in the world that the services of this
// process play.

#include <functional>
#include <string>
#include <vector>

namespace lab {

// Becomes the Mach-O at `program`, run with these words (the first is what it takes for its name) below `root`. Leaves
// a process behind that answers by this process's services, for as long as the program runs; `failed` as for
// WorldServer::serve. To be called in a forked child that has one thread. Ends the process with status 99 when it
// cannot.
[[noreturn]] void becomeMacProgram(const std::string& program, const std::string& root,
                                   const std::vector<std::string>& words,
                                   const std::function<bool()>& failed);

// Removes what servers have left below `root` that were killed.
void removeWorlds(const std::string& root);

// Where machost lies beside this build.
std::string machostPath();

} // namespace lab
