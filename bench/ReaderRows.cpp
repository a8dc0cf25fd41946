#include "bench/FastReaders.h"
#include "bench/Groups.h"
#include "bench/Turns.h"

#include "gp/GPString.h"
#include "packet/TCPPacket.h"
#include "support/ClientHelloBuilder.h"
#include "support/PacketBuilder.h"

#include <cstring>
#include <stdexcept>
#include <string>

using testsupport::ClientHelloBuilder;
using testsupport::PacketBuffer;
using testsupport::PacketBuilder;

namespace bench {
namespace {

// The hello of a browser of today: a session id, 16 cipher suites, and other extensions around the name.
std::string browserHello() {
    ClientHelloBuilder builder;
    builder.sessionIdLength(32).cipherSuitesLength(32);
    for (const int type : {23, 65281, 10, 11, 35})
        builder.extensionBefore(type, std::string(10, '\1'));
    for (const int type : {16, 5, 13, 18, 51, 45, 43})
        builder.extensionAfter(type, std::string(24, '\1'));
    return builder.serverName("www.example.org").build();
}

// The request of a browser of today: the host first, then what browsers tell of themselves.
std::string browserRequest() {
    return "GET /a/path/of/usual/length?with=a&query=too HTTP/1.1\r\nHost: www.example.org\r\n"
           "Connection: keep-alive\r\nUpgrade-Insecure-Requests: 1\r\n"
           "User-Agent: Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/537.36 (KHTML, like "
           "Gecko)\r\n"
           "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/webp,*/*;q=0.8\r\n"
           "Accept-Encoding: gzip, deflate\r\nAccept-Language: en-US,en;q=0.9\r\n"
           "Cookie: " +
           std::string(200, 'c') + "\r\n\r\n";
}

template <class Operation>
Side repeated(long count, Operation operation) {
    return [count, operation] {
        return costOf(count, [count, operation] {
            for (long i = 0; i < count; ++i)
                operation();
        });
    };
}

void expectText(const char* expected, const char* text) {
    if (!text || std::strcmp(expected, text) != 0)
        throw std::runtime_error(std::string("read as ") + (text ? text : "nothing"));
}

// Both readers must read the same before they are timed.
void expectUrl(const char* expected, GPString* own, char* other) {
    expectText(expected, own ? own->cstr() : nullptr);
    expectText(expected, other);
    own->release();
    delete[] other;
}

template <class Own, class Fast>
void against(const std::string& what, double copies, long count, int rounds, Own own, Fast fast) {
    const Side ownSide = repeated(count, own);
    char from[1500] = {1};
    char to[1500];
    const Side copy = repeated(count, [&from, &to] {
        std::memcpy(to, from, sizeof to);
        keep(to);
    });
    row({what, "memcpy of 1,500 bytes"}, inTurns(ownSide, copy, rounds), atMost(copies));
    row({what, "the fastest reader made for the bench"}, inTurns(ownSide, repeated(count, fast), rounds),
        atMost(1.3));
}

} // namespace

void readerRows(const Effort& effort) {
    const long count = effort.count(400000);
    const int rounds = effort.rounds(31);

    const std::string hello = browserHello();
    const auto* helloBytes = reinterpret_cast<const unsigned char*>(hello.data());
    const auto helloSize = static_cast<int>(hello.size());
    char name[255];
    if (!sslDomain(helloBytes, helloSize, name, sizeof name))
        throw std::runtime_error("the hello is not read");
    expectText("www.example.org", name);
    if (walkHello(helloBytes, hello.size(), name, sizeof name) == 0)
        throw std::runtime_error("the walk does not read the hello");
    against(
        "sslDomain of a browser's hello", 1, count, rounds,
        [&] {
            char out[255];
            keep(sslDomain(helloBytes, helloSize, out, sizeof out));
            keep(out);
        },
        [&] {
            char out[255];
            keep(walkHello(helloBytes, hello.size(), out, sizeof out));
            keep(out);
        });

    PacketBuffer helloPacket = PacketBuilder::ipv4().to("93.184.216.34", 443).payload(hello).build();
    const std::size_t helloPacketSize = helloPacket.bytes().size();
    char* const ofHello = helloPacket.packet();
    const auto* const helloView = reinterpret_cast<const unsigned char*>(ofHello);
    expectUrl("https://www.example.org", TCPPacket::httpsURL(ofHello),
              urlOfHello(helloView, helloPacketSize));
    against(
        "httpsURL of a browser's hello, the owned URL included", 4, count, rounds,
        [=] { TCPPacket::httpsURL(ofHello)->release(); },
        [=] {
            char* const url = urlOfHello(helloView, helloPacketSize);
            keep(url);
            delete[] url;
        });

    PacketBuffer getPacket = PacketBuilder::ipv4().payload(browserRequest()).build();
    const std::size_t getSize = getPacket.bytes().size();
    char* const ofGet = getPacket.packet();
    const auto* const getView = reinterpret_cast<const unsigned char*>(ofGet);
    expectUrl("http://www.example.org/a/path/of/usual/length?with=a&query=too", TCPPacket::httpURL(ofGet),
              urlOfGet(getView, getSize));
    against(
        "httpURL of a browser's GET, the owned URL included", 4, count, rounds,
        [=] { TCPPacket::httpURL(ofGet)->release(); },
        [=] {
            char* const url = urlOfGet(getView, getSize);
            keep(url);
            delete[] url;
        });
}

} // namespace bench
