// The listener of one direction, from the connected control socket to the answered packet.

#include "packet/PacketFilter.h"

#include "config/Configuration.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/GPThread.h"
#include "gp/Owned.h"
#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"
#include "platform/ByteOrder.h"
#include "platform/KernelControl.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

constexpr int logLevelOption = 70;
constexpr int versionOption = 201;
constexpr int requiredVersion = 8;

constexpr int channelLogLevel = 32;

constexpr int headerSize = TCPPacket::recordHeaderSize;
constexpr int recordSize = 65535;

// One direction's connected socket and its fixed buffers.
struct Listener {
    const char* name;
    int socket;
    PacketCallback callback;
    sysctl_result result;
    // More room than a receive may fill: the packet operations follow the lengths that a packet claims.
    char buffer[TCPPacket::receiveBufferSize];

    char* packet() { return buffer + headerSize; }
    unsigned shortId() const { return platform::readNative<std::uint32_t>(buffer); }
};

bool logsChannel() { return Configuration::isLogLevel(channelLogLevel); }

// Receives one record. False when there is none that can be answered.
bool receiveRecord(Listener& listener) {
    long n = recv(listener.socket, listener.buffer, recordSize, 0);
    if (n < 1) {
        logf("Warning: invalid %ld %s bytes received -- IGNORED", n, listener.name);
        return false;
    }
    if (n == headerSize) {
        n = recv(listener.socket, listener.packet(), recordSize - headerSize, 0);
        if (logsChannel())
            logf("[0x%x] - processing %s only received %d header bytes; 2nd receive=%ld bytes",
                 listener.shortId(), listener.name, headerSize, n);
    }
    // After a receive in two steps this is the packet alone, and it is held against the header's size all
    // the same.
    if (n <= headerSize) {
        if (Configuration::isVerbose() || logsChannel())
            logf("WARNING: data too small! Packet ignored. (received %ld, expected at least %d)", n,
                 headerSize);
        return false;
    }
    if (logsChannel()) logf("[0x%x] -processing %s -- %ld bytes", listener.shortId(), listener.name, n);
    return true;
}

// The addresses are read in the IPv4 places whatever the packet's version.
void logProcessed(Listener& listener, int verdict) {
    int srcPort = 0;
    int dstPort = 0;
    const unsigned src = TCPPacket::srcIPAddress(listener.packet(), srcPort);
    const unsigned dst = TCPPacket::dstIPAddress(listener.packet(), dstPort);
    const auto srcText = Owned<GPString>::adopt(TCPPacket::formatIpAddress(src));
    const auto dstText = Owned<GPString>::adopt(TCPPacket::formatIpAddress(dst));
    logf("[0x%x] processed %s - src=0x%x p=%d (%s) -dst=0x%x p=%d (%s) (tcpres=%d)", listener.shortId(),
         listener.name, src, srcPort, srcText->cstr(), dst, dstPort, dstText->cstr(), verdict);
}

void answerRecord(Listener& listener) {
    listener.result = sysctl_result{};
    std::memcpy(&listener.result, listener.buffer, sizeof listener.result.packetId);
    const int verdict = listener.callback(listener.packet(), &listener.result);
    if (logsChannel()) logProcessed(listener, verdict);
    listener.result.result = kernelResult(verdict);

    const long sent = send(listener.socket, &listener.result, sizeof listener.result, 0);
    if (sent != static_cast<long>(sizeof listener.result))
        logf("[0x%x] Error sending %s result packet to system; bytes sent=%ld expected=%d",
             listener.shortId(), listener.name, sent, static_cast<int>(sizeof listener.result));
}

// Opens and connects the control socket of one direction; -1 when that fails. A socket that could not be
// connected is not closed.
int connectControl(bool inbound, const char* name) {
    logf("Starting OSX System Interface: %s", name);
    platform::KernelControl& control = platform::kernelControl();
    const int socket = control.open();
    if (socket == -1) {
        logf("Error: failed to open %s System connection.", name);
        return -1;
    }
    std::uint32_t id = 0;
    if (control.controlId(socket, inbound ? "twFernhill_inkext" : "twFernhill_outkext", id) != 0) {
        logf("ERROR: Could not get ID for FernhillKernel. Make sure it is installed.");
        return -1;
    }
    if (const int result = control.connect(socket, id)) {
        logf("Error: System connect %s failed %d", name, result);
        return -1;
    }
    if (Configuration::isVerbose())
        logf("System connection established - %s - (unit=%d id=%d)", name, 0, static_cast<int>(id));
    return socket;
}

// The inbound socket alone carries the options and the statistics.
bool prepareInbound(int socket) {
    if (const int error = osxSetKextOptions(socket)) {
        logf("Aborting: FernhillKernel error %d.", error);
        return false;
    }
    auto* parameters = new CONTROLSOCKETTHREADPARAMETERS;
    parameters->socket = socket;
    GPThread::taskOnBackground(reportAppStatsThread, parameters);
    return true;
}

} // namespace

int kernelResult(int verdict) {
    static constexpr int results[8] = {resultDrop,     resultPass, resultDrop,     resultDrop,
                                       resultRedirect, resultDrop, resultRedirect, resultHold};
    return static_cast<unsigned>(verdict) <= 7 ? results[verdict] : verdict;
}

int osxSetKextOptions(int socket) {
    platform::KernelControl& control = platform::kernelControl();
    const std::int32_t level = Configuration::getKernelLogLevel();
    int result = control.setOption(socket, logLevelOption, &level, sizeof level);
    if (Configuration::isVerbose() || level > 0)
        logf("FernhillKernel Log Level set to %d (result=%d)", level, result);

    std::int32_t version = 0;
    socklen_t length = sizeof version;
    result = control.getOption(socket, versionOption, &version, length);
    if (result != 0) {
        logf("Error %d retreiving Kernel Extension version.", result);
        return result;
    }
    if (version != requiredVersion) {
        logf("ERROR: Mis-matching FernhillKernel version (actual: %d, expecting: %d)", version,
             requiredVersion);
        return -1;
    }
    if (Configuration::isVerbose()) logf("FernhillKernel Version: %d (result=%d)", version, result);
    return 0;
}

void osxKextInterface(bool inbound, PacketCallback callback) {
    const char* const name = inbound ? "INPUT" : "OUTPUT";
    const int socket = connectControl(inbound, name);
    if (socket == -1) return;
    if (inbound && !prepareInbound(socket)) return;

    Listener listener{};
    listener.name = name;
    listener.socket = socket;
    listener.callback = callback;
    for (;;) {
        if (receiveRecord(listener)) answerRecord(listener);
    }
}
