#pragma once

// No call of this system makes a socket or a queue that an exec closes: the mark follows in a call of its own. A fork
// of another thread between the two would hand the descriptor down, so forks wait for the mark. What still slips
// through is a connection that is just being accepted.

namespace platform {

// Held while a descriptor is made and marked; for calls that do not block. Any thread.
class DescriptorMaking {
public:
    DescriptorMaking();
    ~DescriptorMaking();

    DescriptorMaking(const DescriptorMaking&) = delete;
    DescriptorMaking& operator=(const DescriptorMaking&) = delete;
};

// Marks the descriptor and hands it through; -1 stays -1, and errno as it was.
int markedClosedOnExec(int descriptor);

} // namespace platform
