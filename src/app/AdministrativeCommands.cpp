#include "app/AdministrativeCommands.h"

#include "agent/Updater.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"

void loadDaemon(const char*) {}

void loadAgent(const char*) {}

void unloadDaemon(const char*) {}

void unloadDaemons() {}

void reloadDaemons() {}

void rebootMachine() {}

void completeUpdate(GPString* name) {
    if (name->length() > 0 && Updater::finishUpdate(name->cstr()))
        logf("successfully updated to version: %s", Updater::versionString());
    else
        logs("unable to complete the update");
}

void printDeviceReport(GPString*) {}

void installDaemons() {}
