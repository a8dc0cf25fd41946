#include "config/UserRelay.h"

#include "gp/GPString.h"

UserRelay::UserRelay(const char* user, const char* relay, const char* format)
    : userName(new GPString(user)), lastRelay(new GPString(relay)), userFormat(new GPString(format)) {}

UserRelay::~UserRelay() {
    userName.load()->release();
    lastRelay.load()->release();
    userFormat.load()->release();
}

void UserRelay::setUserName(const char* user) { userName = new GPString(user); }

void UserRelay::setLastRelay(const char* relay) { lastRelay = new GPString(relay); }

void UserRelay::setUserFormat(const char* format) { userFormat = new GPString(format); }

GPString* UserRelay::className() { return GPString::string("UserRelay"); }
