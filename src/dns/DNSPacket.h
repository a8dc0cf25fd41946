#pragma once

// DNSPacket: safe search by name. The packet side decides whether a DNS reply asks for a host that is to be
// answered as a search engine's safe-search host; the table side keeps the hosts and their safe-search hosts,
// lets a server replace them, and pins them in the machine's hosts file.
//
// No instances: static operations over state that exists once for the process. Complete, with no caller in
// the daemon. Any thread may call any operation that says nothing else; the lock of the tables and of the
// hosts file is private, not recursive, and not held across a look-up or a fetch.

#include <cstddef>

class GPDOMElement;

class DNSPacket {
public:
    // Whether the packet is a UDP datagram from port 53, over IPv4 or IPv6. The packet starts a region of
    // TCPPacket::packetRoom bytes.
    static bool isUsableDNSPacket(char* packet);

    // Whether a question of type A in this usable packet asks for a host of the table. If so, and `result`
    // (a sysctl_result) is not null, redirectUrl and redirectAddress are filled, the address with 0 if it is
    // not known. No byte of the packet changes. Any message: one that cannot be read asks for nothing.
    static bool remap(char* packet, void* result);

    // Makes sure that both tables and the forced-safe-search address exist. Blocks on a look-up.
    static void resolveRedirectIP();

    // Whether a redirect host has this address (host order). Takes no lock that is held across work on
    // the hosts file, so that no packet waits for that.
    static bool isSslIp(unsigned address);

    // The address of the web search's forced-safe-search host in network order; 0 while it is not known.
    static unsigned getNoSslIp();

    // Replaces the tables, and with them the pinned hosts, by what the element "DNSRemap" in `dom` holds.
    // Blocks on look-ups. Changes nothing without such an element.
    static void setDnsRemapFromDom(GPDOMElement* dom);

    // Adds an element "DNSRemap" to `parent` that describes the present table; nothing for an empty one.
    static void addDomDnsRemap(GPDOMElement* parent);

    // Pins the fixed hosts in the hosts file.
    static void checkHostsFile();

    // Removes the fixed hosts from the hosts file, and all others that were added. Ends at the first that
    // cannot be removed.
    static void removeHostsFile();

    // Removes the hosts that were added from the hosts file, and forgets them; while one of them cannot be
    // removed, all stay on record.
    static void clearHostsDnsRemaps();

    // Fetches new tables for ever on a background thread: once a day, after a failure every 15 minutes.
    static void startDnsApiCheckin();

    // Fetches the tables from the current filter server and puts them in force. Blocks on the network. True if
    // the server answered 200 with a body. resolveRedirectIP must have run, else no row is taken.
    static bool runDnsApiCheckin();
};

// Size of the buffer that a name is read into.
constexpr std::size_t dnsNameBufferSize = 1024;

// Reads the name at `position` of the DNS message and appends it as dotted text to `name`, a zero-terminated
// text in a buffer of dnsNameBufferSize bytes. Afterwards `position` stands behind the name, but for a
// compression pointer, a root name and a reserved length, where it stays. `nameOffset` gets the bytes of a
// pointer to the name. The reader follows a pointer only where a name starts.
//
// False, with `position` where it was, for a name without an end in [begin, end) or too long for the buffer.
bool readName(char*& position, char* name, char* message, unsigned short& nameOffset, const char* begin,
              const char* end);

// The same for a message that is followed by readable memory up to the largest size of a message, 65,535
// bytes.
bool readName(char*& position, char* name, char* message, unsigned short& nameOffset);

// Reads a name, compressed or not. `data` points behind the 12-byte DNS header and has `limit` bytes; the name
// starts at `*position`, which is set behind it. A text that the caller frees with free(); null for a
// malformed name, which is logged, and for the root name. Not for the packet path: it allocates.
char* parseDomain(unsigned char* data, int* position, int limit);

// Creates the table of hosts with its built-in rows. With the tables' lock held, and only while there is none.
void initMap();

// Empties both tables; nothing while one of them is missing. With the tables' lock held.
void clearMaps();

// Pins a host in the hosts file unless a line for it is there, and records it as added. Always true. A host
// whose line no removal would find again gets none: it begins with a blank, holds a line feed, or is longer
// than 252 bytes together with its address. Files that do not open or that take no more leave everything as it
// was. One thread at a time.
bool hostExistsCheck(const char* host, const char* address);

// Removes a host's lines from the hosts file, which is rewritten in place; it stays whole if it or the work
// file does not open or a line cannot be copied into the work file. If it takes no more while it is rewritten,
// the work file keeps everything, and the next removal or pin first copies that back. One thread at a time.
void removeHostEntry(const char* host);
