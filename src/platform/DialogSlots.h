#pragma once

// The dialogs of a backend: slots that are never freed, so that a cancel may come at any time. A slot has an atomic
// flag `taken`; clearing it gives the slot back.

namespace platform {

// How many dialogs there can be at a time.
constexpr int dialogSlotCount = 16;

// A free slot, taken for the caller; null when there is none. Any thread.
template <class Slot>
Slot* takeSlot(Slot (&slots)[dialogSlotCount]) {
    for (Slot& slot : slots) {
        if (!slot.taken.exchange(true)) return &slot;
    }
    return nullptr;
}

} // namespace platform
