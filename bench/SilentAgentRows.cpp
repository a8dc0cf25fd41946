#include "bench/DaemonState.h"
#include "bench/Groups.h"
#include "bench/QuickAgent.h"
#include "bench/Traffic.h"
#include "bench/Workers.h"

#include "lab/PrivateNetwork.h"
#include "packet/SysctlResult.h"

#include <unistd.h>

#include <stdexcept>

namespace bench {
namespace {

constexpr long connections = 10000;
constexpr int mostSeconds = 60;

// How many connections pass once the agent answers; until all do, or a minute is over.
long resolvedOf(Answerer& listener, const Records& data) {
    const double start = secondsNow();
    for (;;) {
        long passed = 0;
        for (const std::string& record : data)
            passed += listener.resultOf(record) == resultPass;
        if (passed == static_cast<long>(data.size()) || secondsNow() - start > mostSeconds) return passed;
        usleep(100000);
    }
}

} // namespace

void silentAgentRows(const Effort& effort) {
    if (!lab::enterPrivateNetwork()) throw std::runtime_error("no network of its own");
    QuickAgent agent(true);
    const auto listen = [](int socket) {
        becomeDaemon();
        serveListener(socket, false);
    };
    Answerer without(listen);
    Answerer with(listen);

    Records hellos;
    Records data;
    for (long i = 0; i < connections; ++i) {
        hellos.push_back(helloOf(i));
        data.push_back(dataOf(i));
    }
    // One connection first: what the first query takes is no connection's.
    if (with.resultOf(helloOf(connections)) != resultHold) throw std::runtime_error("a request is not held");
    sleep(1);
    const double before = residentBytes(with.process());
    with.answer(hellos, connections, resultHold);
    sleep(1);
    const double memory = (residentBytes(with.process()) - before) / static_cast<double>(connections);

    const long count = effort.count(20000);
    const Comparison measured =
        inTurns([&] { return with.answer(data, count, resultHold); },
                [&] { return without.answer(data, count, resultPass); }, effort.rounds(21));
    row({"packets of 10,000 connections while the agent is silent", "the same packets before"}, measured,
        atLeast(0.95));
    row({"memory of such a connection", "1 KB"}, "B", memory, 1024, atMost(1));
    agent.setSilent(false);
    row({"connections that the answers then resolve", "all"}, "", static_cast<double>(resolvedOf(with, data)),
        static_cast<double>(connections), atLeast(1));
}

} // namespace bench
