// Tries the kernel's packet queue, where the build has live runs.

#include "lab/Doctor.h"
#include "lab/divert/PacketQueue.h"
#include "lab/divert/Tools.h"

namespace lab {

std::string queueLack() {
    try {
        const PacketQueue queue(0);
        return "";
    } catch (const UnavailableError& error) {
        return error.what();
    }
}

} // namespace lab
