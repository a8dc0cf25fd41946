#include "config/Configuration.h"
#include "gp/GPLog.h"
#include "packet/TCPPacket.h"
#include "platform/ByteOrder.h"
#include "platform/NameLookup.h"

#include <sys/socket.h>

unsigned TCPPacket::resolve(const char* host) {
    platform::HostEntry entry;
    const bool found = platform::nameLookup().gethostbyname2(host, AF_INET, entry);
    if (found && !entry.addresses.empty() && entry.addresses.front().size() == 4)
        return platform::readBig32(entry.addresses.front().data());
    if (Configuration::isVerbose()) logf("unable to resolve the host: %s", host);
    return 0;
}
