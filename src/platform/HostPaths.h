#pragma once

// Every fixed path of the system, named once. Each operation answers text that stays valid for the life of
// the process and may be called on any thread.

namespace platform {

class HostPaths {
public:
    // Puts the folder `directory` in front of all paths below. For tests and the lab alone: called once,
    // before anything else runs. False, with nothing changed, for a text of more than 60 bytes, since the
    // control sockets' names must fit into a socket address.
    static bool setRoot(const char* directory);

    // The root itself; empty in the shipped program.
    static const char* root();

    static const char* settingsDirectory();
    static const char* configurationFile();
    static const char* debugFile();
    static const char* ldapFile();
    static const char* oemMarkerFile();
    static const char* siblingPreferences();

    static const char* logDirectory();

    static const char* kernelExtension();
    static const char* inboundControlSocket();
    static const char* outboundControlSocket();

    static const char* hostsFile();
    static const char* hostsRecordFile(); // the hosts that were added to the hosts file
    static const char* hostsWorkFile();
    static const char* hostsUnfinishedFile(); // there while the hosts file may be less than the work file

    static const char* updateHelper();
    static const char* updateCopyHelper();

    // Where downloaded updates are put, with a slash at its end, and the name that the log gives them.
    static const char* updateDirectory();
    static const char* updatePackage();

    // Where the check-in's packages are put and unpacked.
    static const char* packageDirectory();

    // Where the directory tools lie, and the folder of the system's own LDAP configurations.
    static const char* dsconfigad();
    static const char* likewiseStatus();
    static const char* adinfo();
    static const char* ldapConfigurations();

    // The definitions of the family of launch daemons, and of the job that restarts the services.
    static const char* bulwarkdDefinition();
    static const char* twproxyDefinition();
    static const char* ostlerjsDefinition();
    static const char* fernhillDefinition();
    static const char* restartServicesDefinition();

    // What an installation makes and runs: a folder, and the two programs that prepare the machine.
    static const char* helperDirectory();
    static const char* rootmint();
    static const char* mintroot();

    // Where a Linux machine says which LDAP directory it uses.
    static const char* ldapClientFile();
};

} // namespace platform
