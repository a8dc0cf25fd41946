#include "gp/GPSockets.h"

#include "gp/GPData.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/GPThreadPool.h"
#include "gp/Owned.h"
#include "gp/TextCopy.h"
#include "platform/ClosedOnExec.h"
#include "platform/EventQueue.h"
#include "platform/NameLookup.h"
#include "platform/SocketAddress.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

using platform::EV_ADD;
using platform::EV_CLEAR;
using platform::EV_DELETE;
using platform::EV_DISPATCH;
using platform::EV_EOF;
using platform::EV_ERROR;
using platform::EVFILT_READ;
using platform::EVFILT_WRITE;
using platform::KEvent;

namespace {

// A callback and the accepted client that it is for, on their way through the pool.
struct Accepted {
    void (*callback)(GPSockets*);
    GPSockets* client;
};

KEvent changeFor(int socket, std::int16_t filter, std::uint16_t flags) {
    KEvent change;
    change.ident = socket;
    change.filter = filter;
    change.flags = flags;
    return change;
}

} // namespace

int GPSockets::Default_Timeout = 5;

GPSockets::GPSockets() = default;

GPSockets::GPSockets(int port, const char* host) : port_(port), useSSL_(port == 443) { setServer(host); }

GPSockets::GPSockets(const char* host) { setServer(host); }

GPSockets::~GPSockets() {
    closeConnection();
    std::free(host_);
    if (threadPool_) threadPool_->release();
    if (ipAddress_) ipAddress_->release();
}

void GPSockets::setPort(int port) {
    port_ = port;
    useSSL_ = port == 443;
}

void GPSockets::setServer(const char* host) {
    char* copy = host ? copyText(host) : nullptr;
    std::free(host_);
    host_ = copy;
}

const char* GPSockets::IPAddress() const { return ipAddress_ ? ipAddress_->cstr() : nullptr; }

void GPSockets::setDefaultTimeout(int seconds) { Default_Timeout = seconds; }

bool GPSockets::openConnection() {
    if (!host_) {
        logf("socket openConnection error no socketHost");
        return false;
    }
    platform::HostEntry entry;
    in_addr address{};
    if (!platform::nameLookup().gethostbyname2(host_, AF_INET, entry) || entry.addresses.empty() ||
        entry.addresses[0].size() < sizeof address) {
        logf("socket openConnection gethostbyname2 fail");
        return false;
    }
    socket_ = platform::closedOnExecSocket(AF_INET, useUDP_ ? SOCK_DGRAM : SOCK_STREAM, 0);
    if (socket_ < 0) {
        logf("socket openConnection socket error %d", socket_);
        return false;
    }
    ownsSocket_ = true;
    std::memcpy(&address, entry.addresses[0].data(), sizeof address);

    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address, text, sizeof text);
    if (ipAddress_)
        ipAddress_->reset(text);
    else
        ipAddress_ = new GPString(text);

    fcntl(socket_, F_SETFL, fcntl(socket_, F_GETFL, 0) | O_NONBLOCK);
    // Not examined: the connection completes later, and the first write's wait finds out.
    const sockaddr_in record = platform::internetAddress(address, port_);
    static_cast<void>(::connect(socket_, reinterpret_cast<const sockaddr*>(&record), sizeof record));

    if (useSSL_ && !openSSLConnection()) {
        logf("socket openConnection openSSLConnection fail");
        return false;
    }
    return true;
}

bool GPSockets::openConnection(int socket) {
    if (socket < 1) return false;
    socket_ = socket;
    ownsSocket_ = true;
    return true;
}

void GPSockets::closeConnection() {
    if (useSSL_) closeSSLConnection();
    if (socket_ > 0 && ownsSocket_) {
        ownsSocket_ = false;
        ::shutdown(socket_, SHUT_RDWR);
        ::close(socket_);
    }
    closeQueue();
}

void GPSockets::closeQueue() {
    if (kqueue_ < 0) return;
    platform::closeQueue(kqueue_);
    kqueue_ = -1;
}

bool GPSockets::listenConnection(void (*callback)(GPSockets*), int count) {
    if (!threadPool_) threadPool_ = new GPThreadPool(count);
    const int listener = platform::closedOnExecSocket(AF_INET, useUDP_ ? SOCK_DGRAM : SOCK_STREAM, 0);
    socket_ = listener;
    if (listener < 1) return false;
    ownsSocket_ = true;
    const int on = 1;
    if (::setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) return false;
    if (!host_) setServer("127.0.0.1");
    sockaddr_in record{};
    auto* address = reinterpret_cast<sockaddr*>(&record);
    getIPAddress(host_, address, port_);
    if (::bind(socket_, address, sizeof record) != 0) return false;
    // One number serves as the time-out and as the backlog.
    if (::listen(socket_, Default_Timeout) != 0) return false;
    socketListen(callback, count);
    return true;
}

bool GPSockets::socketListen(void (*callback)(GPSockets*), int count) {
    const int queue = platform::kqueue();
    if (queue < 0) return false;
    std::vector<KEvent> events(static_cast<std::size_t>(std::max(count, 0)));
    const KEvent change = changeFor(socket_, EVFILT_READ, EV_ADD);
    int found = 0;
    while ((found = platform::kevent(queue, &change, events.data(), static_cast<int>(events.size()), 0)) >
           0) {
        for (int i = 0; i < found; ++i) {
            const KEvent& event = events[static_cast<std::size_t>(i)];
            if (event.flags & EV_ERROR) {
                platform::closeQueue(queue);
                return false;
            }
            if (event.ident == socket_) acceptClient(callback);
        }
    }
    platform::closeQueue(queue);
    return false;
}

void GPSockets::acceptClient(void (*callback)(GPSockets*)) {
    sockaddr_in record{};
    socklen_t length = sizeof record;
    const int descriptor =
        platform::closedOnExecAccept(socket_, reinterpret_cast<sockaddr*>(&record), &length);
    if (descriptor < 0) return;
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &record.sin_addr, text, sizeof text);
    auto* client = new GPSockets(text);
    client->port_ = port_;
    client->useSSL_ = useSSL_;
    client->openConnection(descriptor);
    if (threadPool_)
        threadPool_->addOperation(poolThread, new Accepted{callback, client});
    else
        client->release();
}

void GPSockets::poolThread(void* accepted) {
    const std::unique_ptr<Accepted> pair(static_cast<Accepted*>(accepted));
    pair->callback(pair->client);
    pair->client->release();
}

bool GPSockets::getIPAddress(const char* host, sockaddr* address, int port) {
    if (!host) return false;
    auto* record = reinterpret_cast<sockaddr_in*>(address);
    *record = platform::internetAddress(in_addr{}, port);
    if (*host >= '0' && *host <= '9') {
        if (!validateIP(host)) return false;
        inet_aton(host, &record->sin_addr);
        return true;
    }
    platform::HostEntry entry;
    if (!platform::nameLookup().gethostbyname(host, entry) || entry.addresses.empty()) return false;
    // The raw address is read as if it were text, so a name's own address is not what comes out. Listeners are
    // given numbers alone.
    inet_aton(entry.addresses[0].c_str(), &record->sin_addr);
    return true;
}

bool GPSockets::validateIP(const char* text) {
    const char* place = text;
    for (int number = 0; number < 4; ++number) {
        if (!place) return false;
        // As atoi counts, but with a defined result for numbers beyond an int.
        const auto value = static_cast<unsigned>(static_cast<int>(std::strtol(place, nullptr, 10)));
        if (value > 255) return false;
        const char* dot = std::strchr(place, '.');
        place = dot ? dot + 1 : nullptr;
    }
    return true;
}

bool GPSockets::writeString(const char* text) {
    return text && writeData(text, static_cast<int>(std::strlen(text)) + 1);
}

bool GPSockets::writeData(const char* bytes, int length) {
    if (!bytes || length < 0) return false;
    if (socket_ == 0 && !openConnection()) return false;
    const auto data = Owned<GPData>::adopt(GPData::dataWithData(bytes, length));
    GPData* sent = data.get();
    long count = 0;
    return socketStream(false, sent, count);
}

bool GPSockets::writeData(GPString* text) { return text && writeData(text->cstr(), text->length()); }

bool GPSockets::writeData(GPData* data) { return data && writeData(data->bytes(), data->length()); }

GPData* GPSockets::readData() {
    long count = 0;
    return readData(count);
}

GPData* GPSockets::readData(long& count) {
    GPData* data = nullptr;
    count = 0;
    socketStream(true, data, count);
    return data;
}

GPString* GPSockets::readString() {
    long count = 0;
    return readString(count);
}

GPString* GPSockets::readString(long& count) {
    const auto data = Owned<GPData>::adopt(readData(count));
    return data ? data->convertToString() : nullptr;
}

bool GPSockets::send(const char* bytes, int length) {
    // After a close the number can be that of a descriptor which belongs to somebody else.
    if (!ownsSocket_) {
        errno = EBADF;
        return length == 0;
    }
    int total = 0;
    while (total < length) {
        const ssize_t sent = ::send(socket_, bytes + total, static_cast<std::size_t>(length - total), 0);
        if (sent <= 0) break;
        total += static_cast<int>(sent);
    }
    return total == length;
}

bool GPSockets::socketStream(bool read, GPData*& data, long& count) {
    if (kqueue_ < 0) kqueue_ = platform::kqueue();
    if (kqueue_ < 0) return false;
    // A number that has been given back can be somebody else's by now: no descriptor, so an error event.
    const int watched = socket_ > 0 && !ownsSocket_ ? -1 : socket_;
    KEvent change = read ? changeFor(watched, EVFILT_READ, EV_ADD | EV_CLEAR)
                         : changeFor(watched, EVFILT_WRITE, EV_ADD | EV_DISPATCH);
    while (true) {
        KEvent event;
        if (platform::kevent(kqueue_, &change, &event, 1, timeout_) < 1) {
            std::puts("Timeout");
            return false;
        }
        if (event.flags & EV_ERROR) {
            logf("ERROR: EV_ERROR - %d", errno);
            closeQueue();
            return false;
        }
        const bool ended = (event.flags & EV_EOF) != 0;
        if (ended && !read) return false;
        if (event.ident != socket_) {
            if (!ended) continue;
            logf("EV_EOF error %d", errno);
            setError(EV_EOF);
            return false;
        }
        if (read && event.filter == EVFILT_READ) return readWaiting(event.data, data, count);
        if (!read && event.filter == EVFILT_WRITE) return writeAll(data);
        // A writer's event that a reader meets is left over from a write whose wait ran out.
        if (read) change = changeFor(socket_, EVFILT_WRITE, EV_DELETE);
    }
}

bool GPSockets::writeAll(GPData* data) {
    if (!data) return false;
    if (useSSL_) return sslWrite(data->bytes(), data->length());
    return send(data->bytes(), data->length());
}

bool GPSockets::readWaiting(std::int64_t waiting, GPData*& data, long& count) {
    const auto length = static_cast<std::size_t>(std::clamp<std::int64_t>(waiting, 0, INT_MAX));
    const std::unique_ptr<char[]> buffer(new char[length]());
    count = useSSL_ ? sslRead(buffer.get(), static_cast<long>(length))
                    : static_cast<long>(::recv(socket_, buffer.get(), length, 0));
    if (count < 1) {
        // An orderly close sets no errno; it must not look like a quiet peer.
        // NOLINTNEXTLINE(clang-analyzer-unix.Errno)
        setError(errno != 0 ? errno : ECONNRESET);
        return false;
    }
    if (data)
        data->append(buffer.get(), static_cast<int>(count));
    else
        data = GPData::dataWithData(buffer.get(), static_cast<int>(count));
    return true;
}
