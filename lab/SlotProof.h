#pragma once

// `fernhill-lab slots`: whether the query threads' slots outlive very many short operations on a busy machine. Puts
// empty operations through a pool, and questions through the whole daemon to an agent that answers at once, with two
// processes beside it that take all the processor time they get. Then counts the slots that still run something, and
// those that wait for ever since two questions drew one number, which is by rule.

#include "lab/PolicyAgent.h"

namespace lab {

struct SlotOptions {
    long operations = 1000000;
    long questions = 1000000;

    // For tests: under which numbers the agent takes and answers questions, and how long each slot that should live may
    // take to show it, and a request that was answered to be released.
    PolicyAgent::NumberOf numberOf;
    int patienceMilliseconds = 10000;
};

// Runs both and prints what came of it. The exit status: 0 when everything was done, and each slot lives or waits under
// a number that two questions drew.
int proveSlots(const SlotOptions& options);

} // namespace lab
