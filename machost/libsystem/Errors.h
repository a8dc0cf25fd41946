#pragma once

// Error numbers of the Mac, which differ from this system's above 34 and at 11 and 35. The program reads its own
// number through __error; this system's never reaches it.

#include <cerrno>

namespace machost::libsystem {

// This system's number in the Mac's, by name, and back. A number without a counterpart becomes the Mac's EIO, or this
// system's.
int macError(int host);
int hostError(int mac);

// The calling thread's number, as the program has it.
int& programError();

// Sets the program's number to the counterpart of a number of this system; -1, as a failed call answers.
int failWith(int host);

// Around a call of this system: when the call has set errno, the program's number is set to its counterpart.
class ErrorScope {
public:
    ErrorScope() { errno = 0; }
    ~ErrorScope() {
        // NOLINTNEXTLINE(clang-analyzer-unix.Errno): a call that did not fail and set it has left a number to nobody
        if (errno != 0) programError() = macError(errno);
    }
    ErrorScope(const ErrorScope&) = delete;
    ErrorScope& operator=(const ErrorScope&) = delete;
};

// A call that both systems have alike but for the error number: translated<&::rmdir>.
template <auto call>
struct Translated;
template <class Result, class... Arguments, bool quiet, Result (*call)(Arguments...) noexcept(quiet)>
struct Translated<call> {
    static Result played(Arguments... arguments) {
        const ErrorScope scope;
        return call(arguments...);
    }
};
template <auto call>
constexpr auto translated = &Translated<call>::played;

// The text that the Mac has for one of its numbers; null for a number that it does not know.
const char* macErrorText(int mac);

} // namespace machost::libsystem
