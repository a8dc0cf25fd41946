#pragma once

// The persisted settings of the daemon and the list of filter servers: static operations over state that
// exists once for the process. A setter that changes something writes the whole file at once; it never loads
// the file first, so a process that did not load writes defaults and its one change. Getters of flags and
// levels are plain reads for the packet path: no lock, no allocation. Any thread may call any operation,
// unless it says otherwise. Whatever loads or saves, and so every setter, takes Configuration's own lock, which
// is not recursive.

#include "config/FilterServer.h"

class GPArray;
class GPDate;
class GPString;
class UserRelay;

class Configuration {
public:
    // Reads the configuration file, once in the life of the process. A missing or broken file leaves the
    // defaults. True if this call did the load, false if it was done before.
    static bool loadConfig();

    // Writes the file if something changed or `force` is set. False if the write failed; memory then keeps
    // the new values and the next save tries again.
    static bool saveConfig(bool force);

    // The settings as the text of the file, loaded first if need be. Borrowed; valid until the calling thread
    // calls again or ends.
    static const char* configString();

    static bool isBOFEnabled();
    static void setBOF(bool enabled);
    static bool isBalanced();
    static void setBalancedMode(bool balanced);
    static bool isVerbose();
    static void setVerboseMode(bool verbose);
    static bool filteringDisabled();
    static void setFilteringDisabled(bool disabled);
    static bool isOstlerEnabled();
    static void setOstlerEnabled(bool enabled);
    static bool isUpdateReady();
    static void setUpdateReady(bool ready);
    static bool oemMode();
    static bool isOEM();
    static void setOEMMode(bool oem);

    // The log level is a mask: 1 everything verbose, 16 TLS matters, 32 kernel channel, 64 verdicts,
    // 128 caches and record lists.
    static int getLogLevel();
    static void setLogLevel(int level);
    static bool isLogLevel(int mask);

    // The level handed to the kernel extension.
    static int getKernelLogLevel();
    static void setKernelLogLevel(int level);

    // The user that look-ups and the agent work with, and the console user: borrowed, null while unset. A
    // text stays valid after it was replaced.
    static const char* cachedUserName();
    static void setCachedUserName(const char* name);
    static const char* localUserName();
    static void setLocalUserName(const char* name);

    // The next check-in time, owned by the caller; null while none is stored or when it is no date.
    static GPDate* checkInTimeStamp();
    static void setCheckInTimeStamp(GPString* timeStamp);

    // Takes the verbose flag from the debug file, if there is one.
    static void checkDebugConfig();

    // Turns OEM mode on if the OEM file is there.
    static void checkOEMConfig();

    // Appends an OEM document to the file "fernhill_oem.xml" in the working directory; a null vendor is left
    // out of it.
    static void createOEMConfig(GPString* vendor);

    // The relay record of a user, borrowed, and its texts; null or an empty text if there is none. A domain
    // and its backslash in front of the user are ignored.
    static UserRelay* getLastRelay(const char* user);
    static GPString* getLastRelayUser(const char* user);
    static GPString* getLastRelayUserFormat(const char* user);

    // Stores a user's relay. The name is taken as it stands, a domain in front of it included.
    static void setLastRelay(const char* user, const char* relay, const char* format);

    // The current server, chosen if there is none: the first active one, else the first; null with an empty
    // list. Borrowed; stays valid for the rest of the run.
    static FilterServer* getCurrentServer();

    // Forgets the current server and chooses again.
    static void resetCurrentServer();

    // Whether a current server is set; chooses none.
    static bool hasCurrentServer();

    // A listed server by name, or by list index for a text of fewer than three characters. Borrowed, or null.
    static FilterServer* getFilterServer(const char* nameOrIndex);

    // Chooses a new current server if the present one is no longer listed; true if it did. Takes no lock,
    // since saveConfig calls it with the lock held.
    static bool checkCurrentServer();

    // The name of the current server, borrowed; null without one.
    static const char* serverName();

    // Adds a server at the end, after emptying the list if `replaceAll` is set. True if it was added. The
    // current server stays what it was: whoever replaces the list calls resetCurrentServer afterwards.
    static bool addServerName(const char* name, bool save);
    static bool addServerName(const char* name, bool save, bool replaceAll);

    // Removes a server; true if it was listed.
    static bool removeServerName(const char* nameOrIndex, bool save);

    // Empties the list and leaves the current server alone. Always true.
    static bool removeAllServers(bool save);

    // Moves on to the next active server, in list order and round; stays if there is none. The server that is
    // current afterwards, borrowed; null with an empty list.
    static FilterServer* nextServer();

    // Marks a server down or counts a further failure, at most once in three seconds.
    static void addDownServer(const char* name);

    // Brings a server back.
    static void removeDownServer(const char* name);

    // Brings nothing back, since a server comes back by its name alone; always 0.
    static int removeDownServers();

    // A snapshot of the server list, which the caller releases.
    static GPArray* serverNames();

    // The kind of a server. Asks the server itself while the kind is not known, which blocks on the network.
    // 0 for null or while there is no answer.
    static ServerType findServerType(FilterServer* server);

    // Takes the servers out of the sibling product's preferences, if those are there, and deletes them. Asks
    // each server over the network.
    static void loadRemoteServers();

    // The machine's identifier, generated and stored at first need; all zeros while the machine has no MAC
    // address. The stored one is borrowed; the zeros are a new string at each call.
    static GPString* getUUID();
    static GPString* getDefaultUUID();
    static const char* machineGUID();

    // Generates the identifier if there is none, and saves.
    static void loadUUID();

    // Makes a new identifier, if there is none or `force` is set, without saving it. Takes no lock.
    static void generateUUID(bool force);

    // Called when addresses change: a machine that had no MAC address may have one now.
    static void refreshUUID();
};

// Make `server` the current one, or none, without choosing and without a lock.
void setCurrentServer(FilterServer* server);
void clearCurrentServer();
