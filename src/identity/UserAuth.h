#pragma once

// Who is at the console, and what the machine's directory calls that user. Static operations over file-level
// state, which the thread of the login watch alone writes in the running daemon; nothing locks it. The full
// name, the domain and the groups stay in this module: no part of the daemon asks for them.

class GPArray;
class GPString;

class UserAuth {
public:
    // The console user's name with any domain in front; null if there is none. The caller releases it.
    static GPString* consoleName();

    // The qualified name if one is known, else the plain one; null if there is none. Looks for it at the first
    // call. Borrowed, valid until the next change of user.
    static const char* userName();

    // Sets the qualified name; null clears it.
    static void setFullName(const char* name);

    // The user's groups as the directory writes them, in an array which the caller releases; null if there are
    // none. Runs a directory tool.
    static GPArray* userGroups();

    // The groups as DOMAIN\group in an autoreleased array; null while no domain is known. A group that is no
    // distinguished name is left out.
    static GPArray* netbiosNames(GPArray* groups);

    // Stores the callback for changes of the console user and watches them, on a thread of its own if
    // `background` is set, else on this one, which then does not return while the watch runs. The callback
    // runs on the watching thread and gets the user's name, which it must not rely on. Always true.
    static bool registerLoginChanges(void (*handler)(const char*), bool background);

    // Writes the LDAP override file with this base DN, in place of any other; whether that worked.
    static bool createLdapConfFile(const char* baseDN);

    // The text of the LDAP override file, empty if there is none. Borrowed, valid until the next call.
    static char* printLDAPConfig();
};

// Works out the qualified name of `user`, asking whichever directory tool the machine has, and makes both
// names the known ones. Blocks while the tool runs.
void queryUserName(const char* user);

// The name that the LDAP override file's base DN gives the user, autoreleased; null if the file gives none.
GPString* configName(const char* user);

// Sets the short domain name; null clears it.
void setCachedDomain(const char* domain);

// Thread body: watches the console user until the run loop ends, beginning with the one who is there.
void* loginChangeThread(void* ignored);

// Takes the present console user over and calls the callback if it is another one than before. Nobody at the
// console changes nothing. The arguments are not looked at.
void scNotificationCallback(const void* store, const void* changedKeys, void* info);
