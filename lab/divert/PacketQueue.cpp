#include "lab/divert/PacketQueue.h"

#include "lab/divert/Tools.h"

#include <fmt/format.h>

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace lab {
namespace {

constexpr std::uint32_t wholePacket = 0xffff;
constexpr std::uint32_t longestQueue = 16384;
constexpr int receiveBuffer = 32 << 20;

int takePacket(const nlmsghdr* message, void* packets) {
    nlattr* attributes[NFQA_MAX + 1] = {};
    if (nfq_nlmsg_parse(message, attributes) < 0 || !attributes[NFQA_PACKET_HDR] || !attributes[NFQA_PAYLOAD])
        return MNL_CB_OK;
    QueuedPacket packet;
    const auto* header =
        static_cast<const nfqnl_msg_packet_hdr*>(mnl_attr_get_payload(attributes[NFQA_PACKET_HDR]));
    packet.id = ntohl(header->packet_id);
    if (attributes[NFQA_MARK]) packet.mark = ntohl(mnl_attr_get_u32(attributes[NFQA_MARK]));
    const auto* bytes = static_cast<const unsigned char*>(mnl_attr_get_payload(attributes[NFQA_PAYLOAD]));
    packet.bytes.assign(bytes, bytes + mnl_attr_get_payload_len(attributes[NFQA_PAYLOAD]));
    static_cast<std::vector<QueuedPacket>*>(packets)->push_back(std::move(packet));
    return MNL_CB_OK;
}

} // namespace

void PacketQueue::Closer::operator()(mnl_socket* socket) const { mnl_socket_close(socket); }

PacketQueue::PacketQueue(unsigned number)
    : number_(number), buffer_(wholePacket + static_cast<std::size_t>(MNL_SOCKET_BUFFER_SIZE)),
      socket_(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC)) {
    if (!socket_ || mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) != 0)
        throw UnavailableError(fmt::format("divert: no netfilter socket: {}", std::strerror(errno)));
    configure();
}

PacketQueue::~PacketQueue() = default;

// The kernel acknowledges the last message, and with it that the queue is there.
void PacketQueue::configure() {
    char* buffer = buffer_.data();
    nlmsghdr* message = nfq_nlmsg_put(buffer, NFQNL_MSG_CONFIG, number_);
    nfq_nlmsg_cfg_put_cmd(message, AF_UNSPEC, NFQNL_CFG_CMD_BIND);
    mnl_socket_sendto(socket_.get(), message, message->nlmsg_len);

    message = nfq_nlmsg_put(buffer, NFQNL_MSG_CONFIG, number_);
    nfq_nlmsg_cfg_put_params(message, NFQNL_COPY_PACKET, wholePacket);
    nfq_nlmsg_cfg_put_qmaxlen(message, longestQueue);
    message->nlmsg_flags |= NLM_F_ACK;
    mnl_socket_sendto(socket_.get(), message, message->nlmsg_len);

    const ssize_t count = mnl_socket_recvfrom(socket_.get(), buffer, buffer_.size());
    if (count < 0 || mnl_cb_run(buffer, static_cast<std::size_t>(count), 0,
                                mnl_socket_get_portid(socket_.get()), nullptr, nullptr) < 0)
        throw UnavailableError(fmt::format("divert: this kernel has no NFQUEUE: {}", std::strerror(errno)));
    int on = 1;
    mnl_socket_setsockopt(socket_.get(), NETLINK_NO_ENOBUFS, &on, sizeof on);
    setsockopt(mnl_socket_get_fd(socket_.get()), SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer,
               sizeof receiveBuffer);
}

bool PacketQueue::await(std::vector<QueuedPacket>& packets, int wakeUp) {
    packets.clear();
    pollfd waiting[] = {{mnl_socket_get_fd(socket_.get()), POLLIN, 0}, {wakeUp, POLLIN, 0}};
    while (poll(waiting, 2, -1) < 0 && errno == EINTR) {
    }
    if (waiting[1].revents) return false;
    const ssize_t count = mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size());
    if (count < 0) return errno == EINTR || errno == ENOBUFS;
    mnl_cb_run(buffer_.data(), static_cast<std::size_t>(count), 0, 0, takePacket, &packets);
    return true;
}

void PacketQueue::giveVerdict(std::uint32_t id, bool accepted) {
    char buffer[256];
    nlmsghdr* message = nfq_nlmsg_put(buffer, NFQNL_MSG_VERDICT, number_);
    nfq_nlmsg_verdict_put(message, static_cast<int>(id), accepted ? NF_ACCEPT : NF_DROP);
    mnl_socket_sendto(socket_.get(), message, message->nlmsg_len);
}

} // namespace lab
