#include "machost/world/World.h"

#include "machost/Settings.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <utility>

namespace machost::world {
namespace {

std::string packed(const Words& words) {
    std::string message;
    for (const std::string& word : words)
        message += word + '\0';
    return message;
}

Words unpacked(const std::string& message) {
    Words words;
    for (std::size_t start = 0, end; (end = message.find('\0', start)) != std::string::npos; start = end + 1)
        words.push_back(message.substr(start, end - start));
    return words;
}

// Waits for the next message, and leaves it there.
std::size_t lengthOfNext(int descriptor) {
    ssize_t length = 0;
    do
        length = recv(descriptor, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    while (length < 0 && errno == EINTR);
    return length < 0 ? 0 : static_cast<std::size_t>(length);
}

int connectToWorld() {
    const std::string& path = settings().world;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) return -1;
    path.copy(address.sun_path, path.size());
    const int descriptor = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return -1;
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return descriptor;
    close(descriptor);
    return -1;
}

} // namespace

void endOverNonsense(const std::string& answer) {
    std::fprintf(stderr, "machost: the world's answer is nonsense: %s\n", answer.c_str());
    _exit(nonsenseStatus);
}

std::int64_t numberIn(const std::string& word, std::int64_t least, std::int64_t most) {
    std::int64_t number = 0;
    const char* const end = word.data() + word.size();
    const auto read = std::from_chars(word.data(), end, number);
    if (read.ec != std::errc() || read.ptr != end || number < least || number > most) endOverNonsense(word);
    return number;
}

Line::Line(const Words& question) : descriptor_(connectToWorld()) {
    if (descriptor_ < 0) return;
    const std::string message = packed(question);
    if (send(descriptor_, message.data(), message.size(), MSG_NOSIGNAL) >= 0) return;
    if (errno == EMSGSIZE) {
        std::fprintf(stderr, "machost: the question \"%s\" is too long for the world\n", question[0].c_str());
        _exit(nonsenseStatus);
    }
    close(descriptor_);
    descriptor_ = -1;
}

Line::~Line() {
    if (descriptor_ >= 0) close(descriptor_);
}

Line::Line(Line&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

std::optional<Words> Line::next() {
    int none = -1;
    std::optional<Words> answer = next(none);
    if (none >= 0) close(none);
    return answer;
}

std::optional<Words> Line::next(int& handedOver) {
    handedOver = -1;
    if (!open()) return std::nullopt;
    std::string message(lengthOfNext(descriptor_), '\0');
    iovec part{message.data(), message.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    ssize_t count = 0;
    do
        count = recvmsg(descriptor_, &header, MSG_CMSG_CLOEXEC);
    while (count < 0 && errno == EINTR);
    if (count <= 0) return std::nullopt;
    const cmsghdr* extra = CMSG_FIRSTHDR(&header);
    if (extra && extra->cmsg_type == SCM_RIGHTS)
        std::memcpy(&handedOver, CMSG_DATA(extra), sizeof handedOver);
    message.resize(static_cast<std::size_t>(count));
    return unpacked(message);
}

void Line::tell(const Words& words) const {
    const std::string message = packed(words);
    if (open()) send(descriptor_, message.data(), message.size(), MSG_NOSIGNAL);
}

void Line::hangUp() const {
    if (open()) shutdown(descriptor_, SHUT_RDWR);
}

Answer Answer::of(const std::optional<Words>& words) {
    if (!words) return {};
    const std::string word = words->empty() ? "" : words->front();
    if (word == "real") return {};
    if (word != "yes" && word != "no") endOverNonsense(word);
    return {word == "yes" ? yes : no, {words->begin() + 1, words->end()}};
}

Answer ask(const Words& question) { return Answer::of(Line(question).next()); }

} // namespace machost::world
