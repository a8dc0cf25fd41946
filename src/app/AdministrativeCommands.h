#pragma once

// The commands behind the switches that do more than change a setting. Each runs on the main thread from the
// walk through the switches; no failure of a command changes the program's exit status.

class GPString;

// Loads a launch-daemon definition, the same as the console user, and unloads one.
void loadDaemon(const char* path);
void loadAgent(const char* path);
void unloadDaemon(const char* path);

// -unload: unloads the family of daemons and removes the filter rules.
void unloadDaemons();

// -reload: restarts the services through their job definition.
void reloadDaemons();

// -reboot: restarts the machine.
void rebootMachine();

// -update=: puts the waiting executable in the place of the one called `name`; an empty name fails.
void completeUpdate(GPString* name);

// -info: prints the device report. `host` is the name to resolve; null for a well-known one.
void printDeviceReport(GPString* host);

// -d: sets the machine up and loads the family of daemons.
void installDaemons();
