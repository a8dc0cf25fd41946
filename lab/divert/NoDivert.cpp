// In place of the live run, where the build found no libnetfilter_queue and libmnl.

#include "lab/Policy.h"
#include "lab/divert/DivertCommand.h"

namespace lab {

int divert(const DivertOptions&) {
    throw InputError(
        "divert is not in this build: it needs libnetfilter_queue and libmnl (scripts/setup installs them)");
}

} // namespace lab
