#include "filter/FilterQuery.h"

#include "agent/OstComm.h"
#include "config/Configuration.h"
#include "config/FilterIPAddresses.h"
#include "filter/PolicyReply.h"
#include "filter/QueryCache.h"
#include "gp/GPList.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GPThreadPool.h"
#include "gp/GPTimer.h"
#include "gp/Owned.h"
#include "gp/TextCopy.h"
#include "packet/HijackPacket.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char blockOnFailurePage[] = "http://localhost:6543/block_screen.html/?id=error";
constexpr int blockedSeconds = 30;
constexpr long long disabledLimit = 600000001; // microseconds

// Made when the program is loaded and never destroyed, since query threads may still wait at its end.
GPThreadPool& threadPool = *new GPThreadPool(FilterQuery::queryThreads);
GPMutex& disableMutex = *new GPMutex;
GPTimer& filterTimestamp = *new GPTimer(true); // restarted under disableMutex

std::atomic<int> querynum{0};
std::atomic<bool> filteringDisabled{false}; // changed under disableMutex

// No atomic step: two threads can draw one number, which touches log lines alone.
int nextQueryNumber() {
    const auto drawn = static_cast<unsigned>(querynum.load(std::memory_order_relaxed));
    const int number = static_cast<int>(drawn + 1);
    querynum.store(number, std::memory_order_relaxed);
    return number;
}

void resolveBlocked(const char* url, GPString* reply, int number) {
    cutToRedirect(reply);
    logf("[%d] OstCommFilterQueryThread redirectURL: %s", number, reply->cstr());
    cutAtQuote(reply);
    logf("[%d] OstCommFilterQueryThread hijackRedirectURL: %s", number, reply->cstr());
    HijackPacket::resolve(url, reply->cstr(), blockedSeconds);
}

void resolveFailure(const char* url) {
    HijackPacket::resolve(url, Configuration::isBOFEnabled() ? blockOnFailurePage : nullptr);
}

// Asks once and resolves the record; false when the agent wants to be asked again.
bool askAndResolve(char* url) {
    const int number = nextQueryNumber();
    const auto reply = Owned<GPString>::adopt(OstComm::Instance()->getPolicyCommand(url, number));
    switch (readPolicyReply(reply.get())) {
        case PolicyReply::allowed:
            HijackPacket::resolve(url, nullptr, -1);
            return true;
        case PolicyReply::blocked:
            resolveBlocked(url, reply.get(), number);
            return true;
        case PolicyReply::askAgain:
            logf("[%d] OstCommFilterQueryThread TW Host lookup timeout >>> resending", number);
            return false;
        case PolicyReply::noDecision:
            break;
    }
    resolveFailure(url);
    return true;
}

bool holdsAddress(FilterIPAddresses* snapshot, unsigned address) {
    const auto* addresses = snapshot->addresses;
    if (!addresses) return false;
    const auto place = reinterpret_cast<std::uintptr_t>(addresses);
    // A snapshot damaged in memory: its entries cannot be read.
    if (place <= 999) {
        logf("!!!Warning!!! IP integrity error! *ip=%x addrs=%x", address, static_cast<unsigned>(place));
        return false;
    }
    for (int i = 0; i < snapshot->count; ++i) {
        if (addresses[i].load(std::memory_order_relaxed) == address) return true;
    }
    return false;
}

} // namespace

GPMutex* const FilterQuery::mutex = new GPMutex;

void FilterQuery::send(const char* url, bool https, void* result) {
    if (Configuration::isVerbose()) logf("url being checked: %s", url);
    if (Configuration::isBalanced()) Configuration::nextServer();
    threadPool.addOperation(filterThread, new THREADPARAMS{copyText(url), https, result});
}

void FilterQuery::filterThread(void* argument) {
    auto* params = static_cast<THREADPARAMS*>(argument);
    OstCommFilterQueryThread(params, 0);
    std::free(params->url);
    delete params;
}

void FilterQuery::OstCommFilterQueryThread(THREADPARAMS* params, int) {
    // No delay between the attempts and no limit on their number: the agent ends it by another answer.
    while (!askAndResolve(params->url)) {
    }
}

bool FilterQuery::isFilteringIP(FilterIPAddresses* addresses, unsigned address) {
    if (addresses) return address != 0 && holdsAddress(addresses, address);
    const auto current = Owned<FilterIPAddresses>::adopt(FilterIPAddresses::getCurrentIPAddresses());
    return current && address != 0 && holdsAddress(current.get(), address);
}

void FilterQuery::setFilteringDisabled(bool value) {
    GPMutexLock lock(&disableMutex);
    if (value == filteringDisabled) return;
    logf("filtering is %s",
         value ? "disabled, fernhill is inside the network." : "enabled, fernhill is outside the network");
    filterTimestamp.restart();
    filteringDisabled = value;
}

bool FilterQuery::isFilteringDisabled() {
    if (filterTimestamp.elapsedTime() >= disabledLimit) {
        GPMutexLock lock(&disableMutex);
        filteringDisabled = false;
        filterTimestamp.restart();
        lock.unlock();
        if (Configuration::isVerbose()) logs("filtering is enabled, ip has changed or time has elapsed.");
    }
    return filteringDisabled;
}

bool FilterQuery::queryCache(GPString* url) {
    if (!url) return false;
    const auto key = Owned<GPString>::adopt(queryCacheKey(url));
    if (key->length() == 0) return false;
    static GPList* const cache GUARDED_BY(mutex) = new GPList;
    GPMutexLock lock(mutex);
    return isInQueryCache(cache, key->cstr());
}

void FilterQuery::lockServers() { mutex->lock(); }

void FilterQuery::unlockServers() { mutex->unlock(); }
