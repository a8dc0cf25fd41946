#include "filter/SSLEntry.h"

#include "gp/GPTimer.h"

SSLEntry::SSLEntry(unsigned blocked) : timer(new GPTimer(true)), address(blocked) {}

SSLEntry::~SSLEntry() { timer->release(); }

SSLEntryIpv6::SSLEntryIpv6(const in6_addr& blocked) : timer(new GPTimer(true)), address(blocked) {}

SSLEntryIpv6::~SSLEntryIpv6() { timer->release(); }
