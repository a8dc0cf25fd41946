#include "agent/AgentFrames.h"
#include "agent/AgentLink.h"
#include "agent/ConfigurationFrame.h"
#include "agent/OstComm.h"
#include "agent/UpdatePrompts.h"
#include "config/Configuration.h"
#include "gp/GPData.h"
#include "gp/GPLog.h"
#include "gp/GPSockets.h"
#include "gp/GPString.h"
#include "gp/GPThread.h"
#include "gp/Owned.h"
#include "platform/Clock.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace {

constexpr unsigned secondsToNextTry = 1;

// Appends what one read gives; false when it gave nothing. A read that could not even wait would do no better at once:
// there was no descriptor left for its queue, or the queue, which is closed since, refused the socket (EV_ERROR).
bool readMore(GPSockets* socket, std::string& held) {
    const auto data = Owned<GPData>::adopt(socket->readData());
    if (!data) {
        if (!socket->hasQueue()) platform::clock().sleepSeconds(secondsToNextTry);
        return false;
    }
    held.append(data->bytes(), static_cast<std::size_t>(data->length()));
    return true;
}

void fileFrame(const AgentFrame& frame) {
    agentLink.responses().deliver(frame.sequence, frame.body, frame.bodyLength);
    if (frame.type == agentConfigurationFrame)
        GPThread::taskOnBackground(loadConfigResponseThread, new std::uint32_t(frame.sequence));
}

// Files all frames of the bytes held and reads on until the last of them is complete. False when the stream
// makes no sense, or when the socket fails in the middle of a frame, whose beginning is then dropped.
bool fileFrames(GPSockets* socket, std::string& held) {
    std::size_t offset = 0;
    for (;;) {
        AgentFrame frame;
        switch (readAgentFrame(held.data(), held.size(), offset, frame)) {
            case AgentFrameStep::frame:
                fileFrame(frame);
                offset = frame.next;
                break;
            case AgentFrameStep::needMore:
                held.erase(0, offset);
                offset = 0;
                if (!readMore(socket, held) && socket->error() != 0) return false;
                break;
            case AgentFrameStep::end:
                return true;
            case AgentFrameStep::broken:
                // The agent is to see that its stream led nowhere.
                agentLink.markClosed();
                agentLink.closeSocket();
                return false;
        }
    }
}

void readUntilFailure(GPSockets* socket) {
    while (socket->error() == 0) {
        std::string held;
        if (!readMore(socket, held)) continue;
        if (!fileFrames(socket, held)) return;
    }
}

void takeBypass(const char* response) {
    GPString* value = nullptr;
    if (!readBypassOnFailure(response, value)) return;
    if (Configuration::isLogLevel(1))
        logf("OstComm loadConfigResponseThread bypass_on_failure is %s", value->cstr());
    Configuration::setBOF(blocksOnFailure(value));
    value->release();
}

void takeUpdateUrl(const char* response) {
    GPString* value = nullptr;
    if (!readUpdateUrl(response, value)) return;
    const auto url = Owned<GPString>::adopt(value);
    if (Configuration::isLogLevel(1))
        logf("OstComm loadConfigResponseThread valueBypassStr is <%s>", url->cstr());
    dropQuotes(value);
    if (Configuration::isLogLevel(1))
        logf("OstComm loadConfigResponseThread valueBypassStr is now <%s>", url->cstr());
    if (url->length() > 0 && updating == 0)
        GPThread::taskOnBackground(updateThread, new THREADPARAMETERS(url->cstr()));
}

} // namespace

void* responseThread(void*) {
    // The reader that ReConnect starts comes here while the one that called it is still inside.
    while (agentLink.isBeingRead())
        platform::clock().sleepSeconds(1);
    agentLink.beginReading();
    if (Configuration::isLogLevel(1)) logf("OstComm responseThread starting");

    readUntilFailure(agentLink.socket());

    if (Configuration::isLogLevel(1)) logf("OstComm responseThread reconnecting");
    OstComm::Instance()->ReConnect();
    agentLink.endReading();
    return nullptr;
}

void* loadConfigResponseThread(void* argument) {
    auto* word = static_cast<std::uint32_t*>(argument);
    const std::uint32_t sequence = *word;
    delete word;
    if (Configuration::isLogLevel(1)) logf("OstComm loadConfigResponseThread entry");
    GPString* filed = nullptr;
    if (!agentLink.responses().take(sequence, filed)) return nullptr;
    const auto response = Owned<GPString>::adopt(filed);
    if (Configuration::isLogLevel(1)) logf("OstComm loadConfigResponseThread response %s", response->cstr());
    takeBypass(response->cstr());
    takeUpdateUrl(response->cstr());
    return nullptr;
}
