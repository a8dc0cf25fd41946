#include "gp/GPLog.h"

#include "gp/GPFilesystem.h"
#include "gp/GPMutex.h"
#include "gp/GuardedAppend.h"
#include "gp/TextCopy.h"
#include "gp/ThreadSafety.h"
#include "gp/TimeZoneLock.h"
#include "platform/Clock.h"
#include "platform/ThreadNumber.h"

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/stat.h>

namespace {

std::atomic<const char*> logName{nullptr};
std::atomic<const char*> logDir{nullptr};
std::atomic<std::int32_t> logMaxSize{1048576};
std::atomic<std::int32_t> logMaxCount{20};
// The index of the file being written. It begins below 0 at each start of the process, which
// then finds its place by walking through the full files.
std::atomic<std::int32_t> counter{-1};
std::atomic<bool> logEcho{false};
std::atomic<GPMutex*> mutex{nullptr};

// What stands in front of a line's text, and its newline: more than the thread's number and the time ever take.
constexpr std::size_t longestFront = 96;

constexpr auto relaxed = std::memory_order_relaxed;

// Null while one thread alone logs.
GPMutex* currentMutex() { return mutex.load(std::memory_order_acquire); }

// The folder may be open to everybody. What another has put in the file's place is not written to.
KnownFile logFile GUARDED_BY(currentMutex());

// In a forked child. The old lock stays as it is: where one goes to its waiters in turn, as on the Mac, freeing it would
// hand it to the first that waited at the fork, a thread that the child does not have.
void renewMutex() {
    [[maybe_unused]] static GPMutex* ofParent;
    ofParent = mutex.exchange(new GPMutex);
}

// The name of the file of that index. An index below 10, -1 too, has a 0 in front.
std::string currentLogName(int index) {
    const char* stem = logName.load(relaxed);
    if (!stem) {
        // A copy that is never freed: the text of the process name goes when another one is set.
        stem = copyText(getProcessName());
        logName.store(stem, relaxed);
    }
    const char* directory = logDir.load(relaxed);
    std::string name;
    name.reserve((directory ? std::strlen(directory) : 0) + std::strlen(stem) + 20);
    if (directory) name.append(directory) += '/';
    name += stem;
    if (index < 10) name += '0';
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the stem is kept by logName
    return name.append(std::to_string(index)) += ".log";
}

// The local time with its trailing newline cut; empty for a time that has none.
void writeLocalTime(time_t seconds, char (&text)[64]) {
    struct tm local = {};
    // NOLINTNEXTLINE(bugprone-unsafe-functions): 26 bytes, and the digits of a year beyond 9999
    if (!localtime_r(&seconds, &local) || !asctime_r(&local, text)) text[0] = 0;
    text[std::strcspn(text, "\n")] = 0;
}

// Lines of one second share the text of their time, which takes longer to make than all else of a line.
void appendLocalTime(std::string& line, time_t seconds) {
    const TimeZoneLock lock;
    static time_t known;
    static char text[64];
    if (seconds != known || text[0] == 0) writeLocalTime(known = seconds, text);
    line += text;
}

std::string logLine(const char* text) {
    const std::size_t length = std::strlen(text);
    std::string line;
    line.reserve(length + longestFront);
    line.append("[").append(std::to_string(static_cast<long>(platform::threadNumber()))) += ' ';
    appendLocalTime(line, platform::clock().seconds());
    return line.append("]: ").append(text, length) += '\n';
}

bool isOverLimit(const char* name) {
    const std::int32_t limit = logMaxSize.load(relaxed);
    struct stat entry;
    // A link is not followed: it can lead to a server that does not answer.
    return limit > 0 && lstat(name, &entry) == 0 && S_ISREG(entry.st_mode) && entry.st_size > limit;
}

void append(const char* name, const std::string& line) REQUIRES(currentMutex()) {
    appendGuarded(name, line.data(), line.size(), &logFile);
}

// Goes on to the next index. At the highest one, drops the file with index 0 and moves the others down; the
// file with index -1 takes no part.
void rotate() REQUIRES(currentMutex()) {
    const std::int32_t last = counter.load(relaxed);
    if (last < logMaxCount.load(relaxed)) {
        counter.store(last + 1, relaxed);
        return;
    }
    deleteFile(currentLogName(0).c_str());
    for (std::int32_t i = 1; i <= last; ++i) {
        renameFile(currentLogName(i).c_str(), currentLogName(i - 1).c_str());
    }
}

void holdLog() ACQUIRE(currentMutex()) { currentMutex()->lock(); }

void letLogGo() RELEASE(currentMutex()) { currentMutex()->unlock(); }

} // namespace

void logs(const char* text) {
    const std::string line = logLine(text);
    if (logEcho.load(relaxed)) std::printf("[LogEcho]: %s", line.c_str());
    {
        // Named outside the lock: a rotation can have moved this file when it is written.
        const std::string name = currentLogName(counter.load(relaxed));
        GPMutexLock lock(currentMutex());
        append(name.c_str(), line);
    }
    GPMutexLock lock(currentMutex());
    const std::string name = currentLogName(counter.load(relaxed));
    if (isOverLimit(name.c_str())) rotate();
}

void logf(const char* fmt, ...) {
    va_list arguments;
    va_start(arguments, fmt);
    va_list again;
    va_copy(again, arguments);
    // Most lines are short enough to be made in one pass.
    char line[512];
    const int length = std::vsnprintf(line, sizeof line, fmt, arguments);
    va_end(arguments);
    if (length >= 0 && length < static_cast<int>(sizeof line)) {
        logs(line);
    } else if (length >= 0) {
        const std::size_t size = static_cast<std::size_t>(length) + 1;
        const std::unique_ptr<char[]> text(new char[size]);
        // NOLINTNEXTLINE(cert-err33-c): writes what the first pass measured
        std::vsnprintf(text.get(), size, fmt, again);
        logs(text.get());
    }
    va_end(again);
}

void setLogName(const char* name) { logName.store(name, relaxed); }

void setLogDirectory(const char* directory) { logDir.store(directory, relaxed); }

void setMaxLogSize(int kilobytes) {
    if (kilobytes > 0)
        logMaxSize.store(static_cast<std::int32_t>(static_cast<std::uint32_t>(kilobytes) * 1024u), relaxed);
}

void setMaxLogCount(int count) {
    if (count > 0) logMaxCount.store(count, relaxed);
}

void setLogEcho(bool echo) { logEcho.store(echo, relaxed); }

void makeLogThreadSafe() {
    if (currentMutex()) return;
    mutex.store(new GPMutex, std::memory_order_release);
    // A forked child logs too, and must not find the lock held by a thread that it does not have.
    pthread_atfork(holdLog, letLogGo, renewMutex);
}

void printDumpBytes(const char* bytes, int length, int perLine) {
    for (int i = 0; i < length; ++i) {
        std::printf("%02x ", static_cast<unsigned char>(bytes[i]));
        if (perLine > 0 && (i + 1) % perLine == 0) std::printf("\n");
    }
    std::printf("\n");
}
