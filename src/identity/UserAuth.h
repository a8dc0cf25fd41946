#pragma once

// Who is at the console. Static operations only.

class GPString;

class UserAuth {
public:
    // Stores the callback for changes of the console user and starts the watch, on a thread of its own if
    // `background` is set. Always true.
    static bool registerLoginChanges(void (*handler)(const char*), bool background);

    // The console user's name, owned by the caller; null if there is none.
    static GPString* consoleName();

    // The text of the LDAP override file. Valid for the life of the process.
    static const char* printLDAPConfig();

    // Writes the LDAP override file with this base DN; false if that fails.
    static bool createLdapConfFile(const char* baseDN);
};
