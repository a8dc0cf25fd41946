#pragma once

// A dialog on the console user's screen.

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace machost::world {

class Dialog {
public:
    virtual ~Dialog() = default;

    // Blocks until the dialog has ended: the flags of its answer, of which 3 is one that was cancelled or timed out.
    virtual unsigned long awaitAnswer() = 0;

    // Takes the dialog away. From any thread, and from a signal handler.
    virtual void cancel() = 0;
};

// Shows a dialog for that many seconds (0: without limit). Null when there can be none.
std::unique_ptr<Dialog> showDialog(double seconds, unsigned long flags,
                                   const std::vector<std::pair<std::string, std::string>>& texts);

} // namespace machost::world
