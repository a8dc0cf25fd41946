#include "platform/ChildExec.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace platform {

// With SIGCHLD ignored, a child that runs and ends quickly is gone before setpgid can tell that it called
// exec. So the child holds the writing end of a pipe that an exec closes: its end without a byte in front
// means an exec, one byte means that the exec failed.
ExecSign::ExecSign() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return;
    readEnd_ = ends[0];
    writeEnd_ = ends[1];
}

ExecSign::~ExecSign() {
    if (readEnd_ >= 0) close(readEnd_);
    if (writeEnd_ >= 0) close(writeEnd_);
}

void ExecSign::execFailed() {
    const char mark = 1;
    failed_ = writeEnd_ >= 0 && write(writeEnd_, &mark, 1) == 1;
}

ExecState ExecSign::look(pid_t child) {
    if (child <= 0) return ExecState::ended;
    if (writeEnd_ >= 0) {
        close(writeEnd_);
        writeEnd_ = -1;
    }
    const bool stillOurs = setpgid(child, child) == 0;
    if (!stillOurs && errno == EACCES) return ExecState::executed;
    if (readEnd_ < 0) return stillOurs ? ExecState::notYet : ExecState::ended;

    char mark;
    const ssize_t got = read(readEnd_, &mark, 1);
    if (got == 1) failed_ = true;
    if (failed_) return stillOurs ? ExecState::notYet : ExecState::ended;
    // A child that is gone without a word of failure has called exec, whoever else may hold the pipe open:
    // another child, forked in the meantime, does so until its own exec.
    return got == 0 || !stillOurs ? ExecState::executed : ExecState::notYet;
}

} // namespace platform
