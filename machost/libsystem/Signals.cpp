#include "machost/libsystem/Signals.h"

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Library.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>

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

// A set of signals: a bit for each, from the lowest.
sigset_t hostSet(std::uint32_t mac) {
    sigset_t set;
    sigemptyset(&set);
    for (const Row& row : rows)
        if (mac >> (row.mac - 1) & 1) sigaddset(&set, row.host);
    return set;
}

std::uint32_t macSet(const sigset_t& host) {
    std::uint32_t set = 0;
    for (const Row& row : rows)
        if (sigismember(&host, row.host) == 1) set |= 1u << (row.mac - 1);
    return set;
}

// struct sigaction of <sys/signal.h>, and its flags.
struct Action {
    Handler handler;
    std::uint32_t mask;
    std::int32_t flags;
};
static_assert(sizeof(Action) == 16);

struct Flag {
    int mac;
    int host;
};
constexpr Flag actionFlags[] = {
    {0x1, SA_ONSTACK},   {0x2, SA_RESTART},  {0x4, static_cast<int>(SA_RESETHAND)},
    {0x8, SA_NOCLDSTOP}, {0x10, SA_NODEFER}, {0x20, SA_NOCLDWAIT}};
constexpr int withInformation = 0x40; // not played: the record of a signal's sender is the Mac's own

bool isSpecial(Handler handler) { return handler == nullptr || handler == reinterpret_cast<Handler>(1); }

Action macAction(int mac, const struct sigaction& host) {
    Action action{isSpecial(host.sa_handler) ? host.sa_handler : handlers[mac].load(), macSet(host.sa_mask),
                  0};
    for (const Flag& flag : actionFlags)
        if (host.sa_flags & flag.host) action.flags |= flag.mac;
    return action;
}

int playedSigaction(int mac, const Action* action, Action* before) {
    const int host = mac > 0 && mac < signalCount ? hostSignal(mac) : 0;
    if (host == 0 || (action && action->flags & withInformation)) return failWith(EINVAL);
    const ErrorScope scope;
    struct sigaction old {};
    if (sigaction(host, nullptr, &old) != 0) return -1;
    const Action told = macAction(mac, old);
    if (action) {
        struct sigaction wanted {};
        wanted.sa_handler = isSpecial(action->handler) ? action->handler : deliver;
        wanted.sa_mask = hostSet(action->mask);
        for (const Flag& flag : actionFlags)
            if (action->flags & flag.mac) wanted.sa_flags |= flag.host;
        handlers[mac] = action->handler;
        if (sigaction(host, &wanted, nullptr) != 0) return -1;
    }
    if (before) *before = told;
    return 0;
}

int playedSigmask(int how, const std::uint32_t* set, std::uint32_t* before) {
    constexpr int block = 1, unblock = 2, replace = 3;
    if (set && (how < block || how > replace)) return macError(EINVAL);
    const int host = how == block ? SIG_BLOCK : how == unblock ? SIG_UNBLOCK : SIG_SETMASK;
    sigset_t wanted{}, old{};
    if (set) wanted = hostSet(*set);
    const int error = pthread_sigmask(host, set ? &wanted : nullptr, &old);
    if (error == 0 && before) *before = macSet(old);
    return macError(error);
}

int playedKillThread(pthread_t thread, int mac) {
    const int host = mac == 0 ? 0 : hostSignal(mac);
    return macError(mac != 0 && host == 0 ? EINVAL : pthread_kill(thread, host));
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
        function("_sigaction", playedSigaction, "sigaction(2) of xnu, without SA_SIGINFO"),
        function("_pthread_sigmask", playedSigmask, "pthread.c of libpthread"),
        function("_pthread_kill", playedKillThread, "pthread.c of libpthread"),
        function("_pause", translated<&pause>, "pause.c of Libc"),
        function("_signal", playedSignal, "signal.c of Libc"),
    };
    return table;
}

} // namespace machost::libsystem
