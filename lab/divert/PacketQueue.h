#pragma once

// One queue of packets that the kernel hands over and keeps until each has its verdict.

#include <cstdint>
#include <memory>
#include <vector>

struct mnl_socket;

namespace lab {

struct QueuedPacket {
    std::uint32_t id = 0;
    std::uint32_t mark = 0;
    std::vector<unsigned char> bytes; // from the IP header on
};

// One thread at a time.
class PacketQueue {
public:
    // Binds the queue in the network namespace of the caller. Throws UnavailableError.
    explicit PacketQueue(unsigned number);
    ~PacketQueue();

    PacketQueue(const PacketQueue&) = delete;
    PacketQueue& operator=(const PacketQueue&) = delete;

    // Waits for the next packets; false when `wakeUp` can be read, or the queue is gone.
    bool await(std::vector<QueuedPacket>& packets, int wakeUp);

    void accept(std::uint32_t id) { giveVerdict(id, true); }
    void drop(std::uint32_t id) { giveVerdict(id, false); }

private:
    struct Closer {
        void operator()(mnl_socket* socket) const;
    };

    void configure();
    void giveVerdict(std::uint32_t id, bool accepted);

    const unsigned number_;
    std::vector<char> buffer_;
    std::unique_ptr<mnl_socket, Closer> socket_;
};

} // namespace lab
