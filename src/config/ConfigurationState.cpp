#include "config/ConfigurationState.h"

#include "config/Configuration.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GPSyncdArray.h"

ConfigurationState configurationState;

namespace {

bool makeState() {
    configurationState.usersArray = new GPSyncdArray;
    configurationState.serversArray = new GPSyncdArray;
    configurationState.mutex = new GPMutex;
    configurationState.valuesMutex = new GPMutex;
    configurationState.stringTrue = GPString::staticstring("true");
    configurationState.stringFalse = GPString::staticstring("false");
    return true;
}

[[maybe_unused]] const bool stateMade = makeState();

} // namespace

void markDirtyAndSave() {
    configurationState.bIsDirty = true;
    Configuration::saveConfig(true);
}

bool hasText(GPString* text) { return text && text->length() > 0; }
