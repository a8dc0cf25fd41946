#pragma once

// `fernhill-lab slots`: whether the query threads' slots outlive very many short operations on a busy machine. Puts
// empty operations through a pool, and questions through the whole daemon to an agent that answers at once, with two
// processes beside it that take all the processor time they get. Then counts the slots that still run something.

namespace lab {

struct SlotOptions {
    long operations = 1000000;
    long questions = 1000000;
};

// Runs both and prints what came of it. The exit status: 0 when everything was done and all slots live.
int proveSlots(const SlotOptions& options);

} // namespace lab
