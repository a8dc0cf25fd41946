// The configuration file: what is loaded and saved is loaded the same again, and saved as the same text. Only relays
// live for one load.

#include "config/Configuration.h"
#include "config/ConfigurationState.h"
#include "config/FilterServer.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/Require.h"
#include "gp/GPArray.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GPSyncdArray.h"
#include "gp/Owned.h"
#include "lab/RootFolder.h"
#include "platform/HostPaths.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

using fuzzing::require;
using platform::HostPaths;

ConfigurationState& state = configurationState;

void forget(std::atomic<GPString*>& text) {
    if (GPString* former = text.exchange(nullptr)) former->release();
}

void forgetCheckInTime() {
    GPMutexLock lock(state.valuesMutex);
    if (state.sLastCheckinDate) state.sLastCheckinDate->release();
    state.sLastCheckinDate = nullptr;
}

// One that the load has made, since no list has the name, belongs to nobody else.
void forgetCurrentServer() {
    FilterServer* const current = state.cachedServer.exchange(nullptr);
    const auto listed = Owned<GPArray>::adopt(state.serversArray->getArray());
    if (current && listed->indexOfObject(current) < 0) current->release();
}

// As a process that has just begun.
void startAnew() {
    for (std::atomic<bool>* flag :
         {&state.bBlockOnFailure, &state.bBalanceMode, &state.bVerboseMode, &state.bOEMmode,
          &state.bFilteringDisabled, &state.bInternalNetwork, &state.bOstler, &state.bUpdateReady,
          &state.bConfigLoaded, &state.bIsDirty, &state.bServersDirty})
        *flag = false;
    state.logLevel = 0;
    state.kernelLogLevel = 0;
    for (std::atomic<GPString*>* text : {&state.sCachedUserName, &state.sLocalUserName, &state.uuidString})
        forget(*text);
    forgetCheckInTime();
    forgetCurrentServer();
    state.usersArray->removeAll();
    state.serversArray->removeAll();
}

void write(const std::string& text) {
    std::ofstream(HostPaths::configurationFile(), std::ios::binary) << text;
}

std::string read() {
    std::ifstream file(HostPaths::configurationFile(), std::ios::binary);
    return {(std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>()};
}

// The settings as the daemon shows them, without its relays.
std::string shown() {
    state.usersArray->removeAll();
    return Configuration::configString();
}

void enterRoot() {
    static const lab::RootFolder& root = *[] {
        // A folder that cannot be: nothing is logged.
        setLogDirectory("/dev/null");
        auto* const made = new lab::RootFolder("");
        HostPaths::setRoot(made->path().c_str());
        std::filesystem::create_directories(HostPaths::settingsDirectory());
        return made;
    }();
    (void)root;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    enterRoot();
    write(fuzzing::FuzzInput(data, size).rest());
    startAnew();
    require(Configuration::loadConfig());
    const std::string loaded = shown();
    require(Configuration::saveConfig(true));
    const std::string saved = read();

    startAnew();
    require(Configuration::loadConfig());
    require(shown() == loaded);
    require(Configuration::saveConfig(true));
    require(read() == saved);
    return 0;
}
