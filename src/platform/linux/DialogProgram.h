#pragma once

// A desktop dialog program (zenity, else kdialog) that shows one dialog for the Linux backend. The program
// runs below a helper process of its own, since the daemon ignores the end of its children and would never
// learn the answer; the helper takes the program away when it is told to or when the daemon is gone.

#include "platform/UserDialog.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace platform {

// The command line of a dialog for the program at that path, whose name tells the kind.
std::vector<std::string> dialogCommand(const std::string& program, const NotificationDictionary& dictionary);

// The first dialog program on PATH, or an empty text. None as well without a display to show it on.
std::string findDialogProgram();

class DialogProgram {
public:
    // Starts a program for the dialog, if there is one.
    void start(const NotificationDictionary& dictionary);

    bool isRunning() const { return helper_ > 0; }

    // Becomes readable when the program has ended; -1 without a program.
    int answerDescriptor() const { return answer_; }

    // What the program's end means, as response flags. Blocks until it has ended.
    unsigned long answer() const;

    // Takes the program away, if it is still there.
    void stop();

private:
    pid_t helper_ = 0;
    int answer_ = -1;  // the helper writes the program's exit status into it
    int control_ = -1; // closing it ends the program
};

} // namespace platform
