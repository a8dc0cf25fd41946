#include "platform/ChildExec.h"

#include <cerrno>
#include <unistd.h>

namespace platform {

ExecSign::ExecSign() = default;

ExecSign::~ExecSign() = default;

void ExecSign::execFailed() { failed_ = true; }

// A parent may change the group of its child up to the child's exec, and is refused with EACCES afterwards.
ExecState ExecSign::look(pid_t child) {
    if (setpgid(child, child) == 0) return ExecState::notYet;
    return errno == EACCES ? ExecState::executed : ExecState::ended;
}

} // namespace platform
