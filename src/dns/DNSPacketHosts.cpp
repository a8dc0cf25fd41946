#include "dns/DNSPacket.h"
#include "dns/DNSPacketState.h"
#include "gp/GPFilesystem.h"
#include "gp/GPMutex.h"
#include "gp/ThreadSafety.h"
#include "platform/HostPaths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

using platform::HostPaths;

namespace {

// Lines are read in pieces of at most 254 bytes; each piece counts as a line.
constexpr int lineLimit = 255;

struct FixedHost {
    const char* host;
    const char* address;
};

// Another set than that of the built-in table.
constexpr FixedHost fixedHosts[] = {
    {"encrypted.google.com", "216.239.38.120"}, {"encrypted.google.com.au", "216.239.38.120"},
    {"www.google.co.uk", "216.239.38.120"},     {"images.google.com", "216.239.38.120"},
    {"images.google.co.uk", "216.239.38.120"},  {"www.google.com.au", "216.239.38.120"},
    {"www.google.co.zw", "216.239.38.120"},     {"www.google.com", "216.239.38.120"},
    {"google.com", "216.239.38.120"},           {"www.youtube.com", "216.239.38.120"},
    {"m.youtube.com", "216.239.38.120"},        {"youtubei.googleapis.com", "216.239.38.120"},
    {"www.bing.com", "204.79.197.220"},
};

class TextFile {
public:
    TextFile(const char* path, const char* mode) : file_(openFile(path, mode)) {}
    ~TextFile() {
        if (file_) std::fclose(file_);
    }

    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;

    bool isOpen() const { return file_ != nullptr; }

    // The next line, or the next piece of a long one; false at the end and after a failure.
    bool readLine(char (&line)[lineLimit]) { return std::fgets(line, lineLimit, file_) != nullptr; }
    bool readFailed() const { return std::ferror(file_) != 0; }

    // Failures of writing show at close.
    void write(const char* text) { std::fputs(text, file_); }

    // Whether everything was written.
    bool close() {
        const bool failed = std::ferror(file_) != 0;
        const bool closed = std::fclose(file_) == 0;
        file_ = nullptr;
        return closed && !failed;
    }

    long size() const {
        struct stat found {};
        return fstat(fileno(file_), &found) == 0 ? static_cast<long>(found.st_size) : -1;
    }

private:
    std::FILE* file_;
};

// What follows the first run of blanks, without the line's last character, must be the host. So a line with
// two names or with a tab is none of ours, and the last line of a file without a final line break matches a
// host that is one character shorter.
bool isLineOf(const char* line, const char* host) {
    const char* blank = std::strchr(line, ' ');
    if (!blank) return false;
    const char* name = blank + std::strspn(blank, " ");
    const std::size_t length = std::strlen(host);
    return std::strlen(name) == length + 1 && std::strncmp(name, host, length) == 0;
}

std::string lineOf(const char* host, const char* address) { return std::string(address) + " " + host + "\n"; }

// Whether a removal would find this line again: it is one line, is read in one piece, and is the host's.
bool canBeTakenOut(const std::string& line, const char* host) {
    return line.size() < lineLimit && line.find('\n') == line.size() - 1 && isLineOf(line.c_str(), host);
}

enum class Search { present, absent, unreadable };

Search searchHosts(const char* host) {
    TextFile hosts(HostPaths::hostsFile(), "r");
    if (!hosts.isOpen()) return Search::unreadable;
    char line[lineLimit];
    while (hosts.readLine(line))
        if (isLineOf(line, host)) return Search::present;
    return hosts.readFailed() ? Search::unreadable : Search::absent;
}

// Takes back what went beyond `size`, the size of before. Whether that worked.
bool cutBack(const char* path, long size) { return size >= 0 && truncate(path, size) == 0; }

// Appends to a file and stores the size that it had. A text that does not fit whole is taken back.
bool appendTo(const char* path, const std::string& text, long& sizeBefore) {
    TextFile file(path, "a");
    if (!file.isOpen()) return false;
    sizeBefore = file.size();
    file.write(text.c_str());
    if (file.close()) return true;
    cutBack(path, sizeBefore);
    return false;
}

// Adds a host's line to the hosts file and the host to the record of what was added, both or neither (unless the
// process ends between the two), since what is not recorded could never be taken out. The line is appended as it
// stands: right behind a last line without a line break.
void addHost(const char* host, const std::string& line) REQUIRES(dnsState.mutex) {
    long hostsSize = -1;
    long recordSize = -1;
    if (!appendTo(HostPaths::hostsFile(), line, hostsSize)) return;
    if (!appendTo(HostPaths::hostsRecordFile(), std::string(host) + "\n", recordSize))
        cutBack(HostPaths::hostsFile(), hostsSize);
}

enum class Copy { whole, notBegun, inPart };

// Copies a file line by line over another one, without the lines of `host` unless that is null. Not begun, with
// `to` as it was, when a file does not open.
Copy copyLines(const char* from, const char* to, const char* host) {
    TextFile source(from, "r");
    if (!source.isOpen()) return Copy::notBegun;
    TextFile target(to, "w");
    if (!target.isOpen()) return Copy::notBegun;
    char line[lineLimit];
    while (source.readLine(line))
        if (!host || !isLineOf(line, host)) target.write(line);
    return !source.readFailed() && target.close() ? Copy::whole : Copy::inPart;
}

enum class Presence { there, absent, unknown };

Presence presenceOf(const char* path) {
    struct stat entry;
    if (stat(path, &entry) == 0) return Presence::there;
    return errno == ENOENT ? Presence::absent : Presence::unknown;
}

enum class Compared { hasAll, lacksSome, unreadable };

// Whether the hosts file begins with everything that the work file holds.
Compared compareWithWorkFile() {
    TextFile work(HostPaths::hostsWorkFile(), "r");
    if (!work.isOpen()) return Compared::unreadable;
    TextFile hosts(HostPaths::hostsFile(), "r");
    if (!hosts.isOpen())
        return presenceOf(HostPaths::hostsFile()) == Presence::absent ? Compared::lacksSome
                                                                      : Compared::unreadable;
    char wanted[lineLimit];
    char found[lineLimit];
    while (work.readLine(wanted)) {
        if (!hosts.readLine(found)) return hosts.readFailed() ? Compared::unreadable : Compared::lacksSome;
        if (std::strcmp(wanted, found) != 0) return Compared::lacksSome;
    }
    return work.readFailed() ? Compared::unreadable : Compared::hasAll;
}

// The hosts file is emptied before the work file is copied over it. While that may not have worked, a mark
// stands: the work file is then the only whole copy, for this process and the next, and nothing writes over it.

// Copies the work file, which is whole, over the hosts file. Whether that worked.
bool copyBack() REQUIRES(dnsState.mutex) {
    if (!createNewFile(HostPaths::hostsUnfinishedFile())) return false;
    const Copy copy = copyLines(HostPaths::hostsWorkFile(), HostPaths::hostsFile(), nullptr);
    if (copy == Copy::inPart) return false;
    return deleteFile(HostPaths::hostsUnfinishedFile()) && copy == Copy::whole;
}

// Makes the hosts file whole where the work file may hold more. Whether it is whole. What cannot be looked at is
// neither whole nor to be written over.
bool restoreFromWorkFile() REQUIRES(dnsState.mutex) {
    const Presence work = presenceOf(HostPaths::hostsWorkFile());
    if (work != Presence::there) return work == Presence::absent;
    const Compared compared = compareWithWorkFile();
    if (compared != Compared::lacksSome) return compared == Compared::hasAll;
    return copyLines(HostPaths::hostsWorkFile(), HostPaths::hostsFile(), nullptr) == Copy::whole;
}

// Makes up for a copy back that failed or was interrupted. Whether the hosts file is whole.
bool finishCopyBack() REQUIRES(dnsState.mutex) {
    const Presence mark = presenceOf(HostPaths::hostsUnfinishedFile());
    if (mark != Presence::there) return mark == Presence::absent;
    return restoreFromWorkFile() && deleteFile(HostPaths::hostsUnfinishedFile());
}

// Removes a host's lines by way of the work file, which is left behind. Whether the lines are gone.
bool removeHost(const char* host) REQUIRES(dnsState.mutex) {
    return finishCopyBack() &&
           copyLines(HostPaths::hostsFile(), HostPaths::hostsWorkFile(), host) == Copy::whole && copyBack();
}

// Removes every host that was added, and forgets them. Ends at the first that cannot be removed: nothing is
// forgotten that may still be there.
void removeRecordedHosts() REQUIRES(dnsState.mutex) {
    {
        TextFile record(HostPaths::hostsRecordFile(), "r");
        char host[lineLimit];
        while (record.isOpen() && record.readLine(host)) {
            const std::size_t length = std::strlen(host);
            if (length == 0) continue;
            host[length - 1] = 0;
            if (!removeHost(host)) return;
        }
        if (record.isOpen() && record.readFailed()) return;
    }
    TextFile(HostPaths::hostsRecordFile(), "w");
}

} // namespace

// In this program it is the tables' lock that lets one thread in at a time.
bool hostExistsCheck(const char* host, const char* address) REQUIRES(dnsState.mutex);
void removeHostEntry(const char* host) REQUIRES(dnsState.mutex);

bool hostExistsCheck(const char* host, const char* address) {
    const std::string line = lineOf(host, address);
    if (!canBeTakenOut(line, host)) return true;
    if (finishCopyBack() && searchHosts(host) == Search::absent) addHost(host, line);
    return true;
}

void removeHostEntry(const char* host) { removeHost(host); }

void removePinnedHosts() {
    for (const FixedHost& fixed : fixedHosts)
        if (!removeHost(fixed.host)) return;
    removeRecordedHosts();
}

void DNSPacket::clearHostsDnsRemaps() {
    GPMutexLock lock(dnsState.mutex);
    removeRecordedHosts();
}

void DNSPacket::checkHostsFile() {
    GPMutexLock lock(dnsState.mutex);
    for (const FixedHost& fixed : fixedHosts)
        hostExistsCheck(fixed.host, fixed.address);
}

void DNSPacket::removeHostsFile() {
    GPMutexLock lock(dnsState.mutex);
    removePinnedHosts();
}
