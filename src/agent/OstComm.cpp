#include "agent/OstComm.h"

#include "agent/AgentFrames.h"
#include "agent/AgentLink.h"
#include "agent/UpdatePrompts.h"
#include "agent/Updater.h"
#include "config/Configuration.h"
#include "gp/GPArray.h"
#include "gp/GPData.h"
#include "gp/GPDate.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPNetDevice.h"
#include "gp/GPSockets.h"
#include "gp/GPString.h"
#include "gp/GPThread.h"
#include "gp/Owned.h"
#include "platform/Clock.h"
#include "platform/HardwareRegistry.h"
#include "platform/UserDialog.h"

#include <cerrno>
#include <cstring>
#include <string>

namespace {

char directoryLogon[] = "directory";

GPString* makePlatform() { return new GPString("Mac_x64"); }

GPString* makeVersion() { return GPString::format("%d.%d.%d", 1, 5, 2)->makestatic(); }

void replaceText(GPString*& field, GPString* text) {
    if (field) field->release();
    field = text;
}

// The user name as the logon frame carries it: each backslash doubled, nothing else escaped.
std::string escapedName(const char* userName) {
    std::string escaped;
    for (; *userName; ++userName) {
        if (*userName == '\\') escaped += '\\';
        escaped += *userName;
    }
    return escaped;
}

GPString* logonBody(const char* userName) {
    const std::string escaped = userName ? escapedName(userName) : std::string();
    const std::string udid = platform::hardwareRegistry().platformUUID();
    if (escaped.empty()) return new GPString("{}");
    auto* body = GPString::format(R"({"version":"%s","email":"","upn":"","username":"%s","udid":"%s"})",
                                  Updater::versionString(), escaped.c_str(), udid.c_str());
    // A name that no frame can carry is reported as none: the link waits for this frame to go out.
    if (static_cast<std::size_t>(body->length()) > agentOtherFrameSpace - agentFrameHeader) body->reset("{}");
    return body;
}

} // namespace

GPMutex* const OstComm::instanceMutex = new GPMutex;
OstComm* OstComm::m_pInstance = nullptr;
GPString* OstComm::name = nullptr;
GPString* OstComm::hostIPAddress = nullptr;
std::uint8_t OstComm::port = 0;
std::uint8_t OstComm::timeout = 0;

OstComm* OstComm::Instance() {
    GPMutexLock lock(instanceMutex);
    if (!m_pInstance) m_pInstance = new OstComm(agentHost);
    return m_pInstance;
}

OstComm::OstComm(const char* host) : platform_(makePlatform()), version_(makeVersion()) {
    const auto hostText = Owned<GPString>::adopt(new GPString(host));
    OstComm connecting(hostText.get());
}

OstComm::OstComm(GPString* host) : platform_(makePlatform()), version_(makeVersion()) {
    replaceText(name, new GPString(host));
    port = 1;
    timeout = 1;
    connect();
}

OstComm::~OstComm() {
    platform_->release();
    version_->release();
}

void OstComm::ReConnect() {
    agentLink.responses().wakeHead();
    GPMutexLock lock(instanceMutex);
    port = 1;
    timeout = 1;
    replaceText(version_, makeVersion());
    replaceText(platform_, makePlatform());
    connect();
}

GPSockets* OstComm::makeLinkSocket() {
    auto* socket = new GPSockets;
    socket->setTimeout(timeout * 5);
    socket->setPort(port ? agentPort : 0);
    socket->setServer(name->cstr());
    return socket;
}

// Builds the link. The socket object that was there before is neither closed nor released: other threads may still
// be sending on it.
void OstComm::connect() {
    GPSockets* socket = makeLinkSocket();
    agentLink.replaceSocket(socket);
    if (!socket->openConnection()) {
        logf("WARNING: Socket open error in OstComm.");
        return;
    }
    logf("OstComm socket opened [0x%x]", static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(socket)));
    agentLink.markOpened();
    logOnUntilSent();
    replaceText(hostIPAddress, new GPString(socket->IPAddress()));
    GPThread::taskOnBackground(responseThread, nullptr);
}

// The connect itself does not wait, so this loop is the wait for an agent that does not listen yet.
void OstComm::logOnUntilSent() {
    while (!setUserLogonCommand(const_cast<char*>(Configuration::cachedUserName()), directoryLogon)) {
        agentLink.closeSocket();
        platform::clock().sleepSeconds(1);
        agentLink.reopenSocket();
    }
}

// Sends a frame whose answer nobody waits for, and logs how that ended under the command's name.
bool OstComm::sendCommand(const char* command, std::uint32_t type, std::uint32_t sequence, const char* body) {
    if (!agentLink.isOpened()) {
        logf("OstComm %s no socket.", command);
        return false;
    }
    int error = 0;
    const bool sent = agentLink.sendFrame<agentOtherFrameSpace>(type, sequence, body, error);
    // A request for the configuration has no words for success, and none for the errno.
    if (type == agentConfigurationFrame) {
        if (!sent) logf("OstComm %s socket send failed.", command);
    } else if (sent) {
        logf("OstComm %s send success", command);
    } else {
        logf("OstComm %s socket send failed errno is %d.\n", command, error);
    }
    return sent;
}

bool OstComm::setUserLogonCommand(char* userName, char*) {
    const std::uint32_t sequence = agentLink.nextSequence();
    const auto body = Owned<GPString>::adopt(logonBody(userName));
    logf("OstComm setUserLogonCommand sending %s", body->cstr());
    return sendCommand("setUserLogonCommand", agentLogonFrame, sequence, body->cstr());
}

GPString* OstComm::getPolicyCommand(char* url, int queryNumber) {
    const std::uint32_t sequence = agentLink.nextSequence();
    const auto body = Owned<GPString>::adopt(GPString::format("{\"url\":\"%s\"}", url));
    if (Configuration::isLogLevel(1))
        logf("[%d] OstComm getPolicyCommand sending %s", queryNumber, body->cstr());
    if (!agentLink.isOpened()) {
        logf("[%d] OstComm getPolicyCommand no socket.", queryNumber);
        return new GPString("{BOF}");
    }
    // The slot is there before anything is sent, so that no reply can outrun it.
    ResponseEntry* entry = agentLink.responses().open(sequence);
    GPString* response = nullptr;
    int error = 0;
    if (agentLink.sendFrame<agentPolicyFrameSpace>(agentPolicyFrame, sequence, body->cstr(), error)) {
        response = agentLink.responses().wait(entry);
        if (Configuration::isLogLevel(1))
            logf("[%d] OstComm getPolicyCommand response %s", queryNumber,
                 response ? response->cstr() : "(null)");
    } else {
        logf("[%d] OstComm getPolicyCommand socket send failed.", queryNumber);
        agentLink.responses().remove(sequence);
        response = new GPString("{BOF}");
    }
    agentLink.responses().close(entry);
    return response;
}

bool OstComm::getConfigurationCommand() {
    const std::uint32_t sequence = agentLink.nextSequence();
    if (Configuration::isLogLevel(1)) logf("OstComm getConfigurationCommand sending ");
    return sendCommand("getConfigurationCommand", agentConfigurationFrame, sequence, "");
}

GPString* OstComm::getDNSRedirectsCommand() {
    // No lock around the send, no look at whether the link stands, and the read competes with the reader thread: good only
    // while nobody else uses the link.
    char frame[agentOtherFrameSpace];
    const std::size_t length =
        buildAgentFrame(frame, sizeof frame, agentDnsRedirectsFrame, agentLink.nextSequence(), "");
    GPSockets* socket = agentLink.socket();
    if (!socket->send(frame, static_cast<int>(length))) {
        logf("OstComm socket send failed.");
        return new GPString;
    }
    const auto data = Owned<GPData>::adopt(socket->readData());
    if (!data) {
        logf("OstComm socket read failed.");
        return new GPString;
    }
    constexpr int header = static_cast<int>(agentFrameHeader);
    auto* response = data->length() > header ? new GPString(data->bytes() + header, data->length() - header)
                                             : new GPString;
    if (Configuration::isLogLevel(1)) logf("OstComm getDNSRedirectsCommand response %s", response->cstr());
    return response;
}

bool OstComm::sendIpAddressesCommand() {
    const std::uint32_t sequence = agentLink.nextSequence();
    const auto addresses = Owned<GPString>::adopt(getIpAddresses());
    const auto body = Owned<GPString>::adopt(GPString::format("{%s}", addresses->cstr()));
    logf("OstComm sendIpAddressesCommand sending %s", body->cstr());
    return sendCommand("sendIpAddressesCommand", agentAddressesFrame, sequence, body->cstr());
}

void OstComm::OstCommClose() {
    agentLink.markClosed();
    agentLink.closeSocket();
    logf("OstComm socket closed");
}

bool OstComm::isOpened() { return agentLink.isOpened(); }

void OstComm::clearPopups() {
    logf("clearPopups entry");
    updating = 0;
    if (auto* dialog = notifyUpdatePopUp.load()) platform::userDialog().cancel(dialog);
    if (auto* dialog = notifyUpdatingPopUp.load()) platform::userDialog().cancel(dialog);
}

GPDate* OstComm::responseThreadStarted() { return agentLink.responseThreadStarted(); }

GPString* OstComm::className() { return GPString::string("OstComm"); }

GPString* getIpAddresses() {
    auto* text = new GPString;
    const auto addresses = Owned<GPArray>::adopt(GPNetDevice::ipAddresses(GPIPTypeAny));
    GPString lists[2]; // IPv4, IPv6
    for (int i = 0; i < addresses->count(); ++i) {
        auto* address = static_cast<GPString*>(addresses->objectAtIndex(i));
        GPString& list = lists[address->find(":", false) >= 0 ? 1 : 0];
        list.appendFormat("%s\"%s\"", list.length() ? "," : "", address->cstr());
    }
    if (lists[0].length()) {
        text->appendFormat("\"IPv4\":[%s]", lists[0].cstr());
        // The comma comes whether or not IPv6 addresses follow; the agent bears it.
        text->append(",");
    }
    if (lists[1].length()) text->appendFormat("\"IPv6\":[%s]", lists[1].cstr());
    return text;
}
