// In place of the trial, where the build found no libnetfilter_queue and libmnl.

#include "lab/Doctor.h"

namespace lab {

std::string queueLack() { return "not in this build, which found no libnetfilter_queue and libmnl"; }

} // namespace lab
