#include "machost/world/ThreadNotes.h"

#include "machost/world/World.h"

#include <unistd.h>

#include <atomic>
#include <string>

namespace machost::world {
namespace {

const char* programHeader = nullptr;
std::atomic<bool> isUnwanted{false};

void note(const std::string& distance) {
    if (isUnwanted) return;
    if (ask({"thread", std::to_string(gettid()), distance}).kind == Answer::real) isUnwanted = true;
}

} // namespace

void setProgramHeader(const void* header) { programHeader = static_cast<const char*>(header); }

void noteThreadStart(const void* function) {
    note(std::to_string(static_cast<const char*>(function) - programHeader));
}

void noteThreadEnd() { note("0"); }

} // namespace machost::world
