#include "lab/WorldAnswers.h"

#include "lab/DirectoryAnswers.h"
#include "lab/WorldWords.h"
#include "platform/Clock.h"
#include "platform/ConsoleUser.h"
#include "platform/HardwareRegistry.h"
#include "platform/HostName.h"
#include "platform/InterfaceEntries.h"
#include "platform/NameLookup.h"
#include "platform/NetworkChanges.h"
#include "platform/UrlSession.h"
#include "platform/UserDialog.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <future>
#include <map>
#include <string>
#include <thread>

namespace lab {
namespace {

void answerHost(int connection, const Words& question) {
    const int family = question[2] == "6" ? AF_INET6 : AF_INET;
    platform::HostEntry entry;
    if (!platform::nameLookup().gethostbyname2(question[1].c_str(), family, entry))
        return say(connection, {"no"});
    Words answer = {"yes", entry.officialName};
    for (const std::string& address : entry.addresses) {
        char text[INET6_ADDRSTRLEN] = "";
        answer.emplace_back(inet_ntop(family, address.data(), text, sizeof text));
    }
    say(connection, answer);
}

std::int64_t numberIn(const std::string& word) { return std::strtoll(word.c_str(), nullptr, 10); }

// Entries go as pairs of hexadecimal digits.
void answerInterfaces(int connection, const Words&) {
    platform::InterfaceEntries& service = platform::interfaceEntries();
    constexpr std::size_t mostBytes = std::size_t{16} * 1024;
    std::string entries(mostBytes, '\0');
    int length = static_cast<int>(entries.size());
    const int socket = service.open();
    const bool listed = service.list(socket, entries.data(), length);
    service.close(socket);
    if (!listed) return say(connection, {"no"});
    std::string digits;
    for (int i = 0; i < length; ++i) {
        constexpr char names[] = "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(entries[static_cast<std::size_t>(i)]);
        digits += {names[byte >> 4], names[byte & 15]};
    }
    say(connection, {"yes", digits});
}

// The clock of this build is the machine's, which the asker has itself.
bool isRealClock() { return &platform::clock() == &platform::clockService.backend(); }

int clockMemory = -1;

void answerClock(int connection, const Words&) {
    if (clockMemory < 0) return say(connection, {"real"});
    char text[] = "yes";
    iovec part{text, sizeof text};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof clockMemory)] = {};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    cmsghdr* extra = CMSG_FIRSTHDR(&header);
    extra->cmsg_level = SOL_SOCKET;
    extra->cmsg_type = SCM_RIGHTS;
    extra->cmsg_len = CMSG_LEN(sizeof clockMemory);
    std::memcpy(CMSG_DATA(extra), &clockMemory, sizeof clockMemory);
    sendmsg(connection, &header, MSG_NOSIGNAL);
}

void answerNow(int connection, const Words&) {
    if (isRealClock()) return say(connection, {"real"});
    say(connection, {"yes", std::to_string(platform::clock().microseconds())});
}

// Whole seconds go as seconds, as the program asked for them.
void answerSleep(int connection, const Words& question) {
    if (isRealClock()) return say(connection, {"real"});
    const std::int64_t length = numberIn(question[1]);
    if (length % 1000000 == 0 && length > 0)
        platform::clock().sleepSeconds(static_cast<unsigned>(length / 1000000));
    else
        platform::clock().sleepMicroseconds(static_cast<unsigned>(length));
    say(connection, {"yes"});
}

void answerEventLimit(int connection, const Words& question) {
    if (isRealClock()) return say(connection, {"real"});
    const auto seconds = static_cast<int>(numberIn(question[1]));
    say(connection, {"yes", std::to_string(platform::clock().eventWaitLimit(seconds))});
}

void answerConsoleUser(int connection, const Words&) {
    char name[256] = "";
    if (platform::consoleUser().copyName(name, sizeof name))
        say(connection, {"yes", name});
    else
        say(connection, {"no"});
}

// The watches of this process tell a change to whoever watches; the services hand no context to their calls.
thread_local int watcher = -1;

void tellWatcher() { say(watcher, {"yes"}); }

void watchConsole(int connection, const Words& question) {
    watcher = connection;
    platform::ConsoleUser& service = platform::consoleUser();
    platform::ConsoleUser::Watch* watch =
        service.create(question[1].c_str(), [](const void*, const void*, void*) { tellWatcher(); });
    if (!watch) return say(connection, {"no"});
    say(connection, {"yes"});
    service.run(watch);
    service.release(watch);
}

void watchNetwork(int connection, const Words& question) {
    watcher = connection;
    int error = 0;
    platform::NetworkChanges& service = platform::networkChanges();
    platform::NetworkChanges::Watch* watch = service.create(question[1].c_str(), tellWatcher, error);
    if (!watch) return say(connection, {"no", std::to_string(error)});
    say(connection, {"yes"});
    const auto alive = [connection] {
        char byte = 0;
        return recv(connection, &byte, 1, MSG_PEEK | MSG_DONTWAIT) != 0;
    };
    while (alive())
        service.run(watch);
    service.release(watch);
}

void answerUuid(int connection, const Words&) {
    const std::string uuid = platform::hardwareRegistry().platformUUID();
    if (uuid.empty())
        say(connection, {"no"});
    else
        say(connection, {"yes", uuid});
}

void answerHostName(int connection, const Words&) {
    const auto name = platform::hostName().currentHostName();
    if (name)
        say(connection, {"yes", *name});
    else
        say(connection, {"no"});
}

void answerHome(int connection, const Words&) {
    say(connection, {"yes", platform::hostName().homeDirectory()});
}

platform::NotificationKey keyOf(const std::string& word) {
    if (word == "AlertHeader") return platform::NotificationKey::alertHeader;
    if (word == "DefaultButtonTitle") return platform::NotificationKey::defaultButtonTitle;
    if (word == "AlternateButtonTitle") return platform::NotificationKey::alternateButtonTitle;
    return platform::NotificationKey::alertMessage;
}

// The asker hangs up to take its dialog away.
void answerDialog(int connection, const Words& question) {
    platform::NotificationDictionary entries;
    for (std::size_t i = 3; i + 1 < question.size(); i += 2)
        entries.emplace_back(keyOf(question[i]), question[i + 1]);
    platform::UserDialog& service = platform::userDialog();
    platform::UserNotification* dialog = service.create(
        std::strtod(question[1].c_str(), nullptr), std::strtoul(question[2].c_str(), nullptr, 10), entries);
    if (!dialog) return say(connection, {"no"});
    say(connection, {"yes"});
    std::thread([&service, dialog, connection = dup(connection)] {
        pollfd waited{connection, POLLRDHUP, 0};
        poll(&waited, 1, -1);
        service.cancel(dialog);
        close(connection);
    }).detach();
    unsigned long flags = platform::notificationCancelResponse;
    service.receiveResponse(dialog, flags);
    say(connection, {"yes", std::to_string(flags)});
    shutdown(connection, SHUT_RDWR);
    service.release(dialog);
}

void answerUrl(int connection, const Words& question) {
    std::promise<platform::UrlTaskResult> ended;
    const auto completion = [&](const platform::UrlTaskResult& result) {
        // The file goes when the call comes back, so the asker takes it before.
        say(connection,
            {"yes", std::to_string(result.statusCode), result.location, result.localizedDescription});
        char byte = 0;
        recv(connection, &byte, 1, 0);
        ended.set_value(result);
    };
    if (question[1] == "GET")
        platform::urlSession().downloadTask(question[2].c_str(), completion);
    else
        platform::urlSession().uploadTask(question[2].c_str(), question[1].c_str(), question[3], completion);
    ended.get_future().wait();
}

std::function<void(int, std::uint64_t)> threadObserver;

void noteThread(int connection, const Words& question) {
    if (!threadObserver) return say(connection, {"real"});
    threadObserver(static_cast<int>(numberIn(question[1])), std::strtoull(question[2].c_str(), nullptr, 10));
    say(connection, {"yes"});
}

struct HeldPort {
    int port = -1;
    int released = -1;
};
HeldPort heldPort;

bool isReleased() {
    pollfd looked{heldPort.released, POLLIN, 0};
    return poll(&looked, 1, 0) != 0;
}

// The second word comes when the connection is let go.
void answerConnect(int connection, const Words& question) {
    if (numberIn(question[2]) != heldPort.port || isReleased()) return say(connection, {"no"});
    say(connection, {"yes"});
    pollfd waited[] = {{heldPort.released, POLLIN, 0}, {connection, POLLRDHUP, 0}};
    poll(waited, 2, -1);
    say(connection, {"yes"});
}

struct Topic {
    void (*answer)(int, const Words&);
    std::size_t words;
};

const std::map<std::string, Topic>& topics() {
    static const auto& all = *new std::map<std::string, Topic>{
        {"host", {answerHost, 3}},
        {"interfaces", {answerInterfaces, 1}},
        {"clock", {answerClock, 1}},
        {"now", {answerNow, 1}},
        {"sleep", {answerSleep, 2}},
        {"event-limit", {answerEventLimit, 2}},
        {"console-user", {answerConsoleUser, 1}},
        {"watch-console", {watchConsole, 2}},
        {"watch-network", {watchNetwork, 2}},
        {"platform-uuid", {answerUuid, 1}},
        {"host-name", {answerHostName, 1}},
        {"home", {answerHome, 1}},
        {"dialog", {answerDialog, 3}},
        {"url", {answerUrl, 4}},
        {"thread", {noteThread, 3}},
        {"connect", {answerConnect, 3}},
        {"directory-nodes", {answerDirectoryNodes, 1}},
        {"directory-type", {converseWithNodeOfType, 2}},
        {"directory-node", {converseWithNamedNode, 2}},
    };
    return all;
}

} // namespace

void shareClockMemory(int descriptor) { clockMemory = descriptor; }

void observeThreads(std::function<void(int, std::uint64_t)> observer) {
    threadObserver = std::move(observer);
}

void holdConnectionsBack(int port, int released) { heldPort = {port, released}; }

void answerQuestion(int connection) {
    const Words question = readWords(connection);
    if (question.empty()) return;
    const auto topic = topics().find(question[0]);
    if (topic == topics().end() || question.size() < topic->second.words) return say(connection, {"real"});
    topic->second.answer(connection, question);
}

} // namespace lab
