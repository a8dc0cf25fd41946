#include "machost/libsystem/Signals.h"

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Library.h"

#include <atomic>
#include <csignal>

namespace machost::libsystem {
namespace {

struct Row {
    int mac;
    int host;
};

constexpr Row rows[] = {{1, SIGHUP},   {2, SIGINT},    {3, SIGQUIT},  {4, SIGILL},   {5, SIGTRAP},
                        {6, SIGABRT},  {8, SIGFPE},    {9, SIGKILL},  {10, SIGBUS},  {11, SIGSEGV},
                        {12, SIGSYS},  {13, SIGPIPE},  {14, SIGALRM}, {15, SIGTERM}, {16, SIGURG},
                        {17, SIGSTOP}, {18, SIGTSTP},  {19, SIGCONT}, {20, SIGCHLD}, {21, SIGTTIN},
                        {22, SIGTTOU}, {23, SIGIO},    {24, SIGXCPU}, {25, SIGXFSZ}, {26, SIGVTALRM},
                        {27, SIGPROF}, {28, SIGWINCH}, {30, SIGUSR1}, {31, SIGUSR2}};
constexpr int signalCount = 32;

using Handler = void (*)(int);

// What the program has set, by the Mac's numbers. Null is the default, as it is there.
std::atomic<Handler> handlers[signalCount];

const Handler refused = reinterpret_cast<Handler>(-1);

thread_local int handlerDepth = 0;

// The program's handler finds its own errno, and the host's is what it was before.
void deliver(int host) {
    const int before = errno;
    const int mac = macSignal(host);
    const Handler handler = handlers[mac];
    ++handlerDepth;
    if (handler && handler != reinterpret_cast<Handler>(1)) handler(mac);
    --handlerDepth;
    errno = before;
}

Handler playedSignal(int mac, Handler handler) {
    const int host = mac > 0 && mac < signalCount ? hostSignal(mac) : 0;
    if (host == 0 || host == SIGKILL || host == SIGSTOP) {
        failWith(EINVAL);
        return refused;
    }
    const bool special = handler == nullptr || handler == reinterpret_cast<Handler>(1);
    const Handler before = handlers[mac].exchange(handler);
    // Calls that the signal interrupts go on, as BSD has it.
    std::signal(host, special ? handler : deliver);
    return before;
}

} // namespace

int macSignal(int host) {
    for (const Row& row : rows)
        if (row.host == host) return row.mac;
    return 0;
}

int hostSignal(int mac) {
    for (const Row& row : rows)
        if (row.mac == mac) return row.host;
    return 0;
}

bool isInsideHandler() { return handlerDepth > 0; }

const ImportTable& signalImports() {
    static const auto& table = *new ImportTable{
        function("_signal", playedSignal, "signal.c of Libc"),
    };
    return table;
}

} // namespace machost::libsystem
