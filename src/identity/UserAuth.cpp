#include "identity/UserAuth.h"

bool UserAuth::registerLoginChanges(void (*)(const char*), bool) { return true; }

GPString* UserAuth::consoleName() { return nullptr; }

const char* UserAuth::printLDAPConfig() { return ""; }

bool UserAuth::createLdapConfFile(const char*) { return false; }
