#include "config/FilterServer.h"

#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GPTimer.h"

FilterServer::FilterServer(const char* serverName)
    : name_(GPString::of(serverName ? serverName : "")), mutex_(new GPMutex) {}

FilterServer::FilterServer(GPString* serverName) : FilterServer(serverName ? serverName->cstr() : nullptr) {}

FilterServer::~FilterServer() {
    if (GPString* name = getName()) name->release();
    mutex_->release();
    if (GPTimer* timer = getTimer()) timer->release();
}

void FilterServer::setName(GPString* serverName) {
    name_.store(new GPString(serverName), std::memory_order_release);
}

const char* FilterServer::getUrl() const {
    GPString* name = getName();
    return name ? name->cstr() : nullptr;
}

bool FilterServer::nameEquals(const char* other) const {
    GPString* name = getName();
    return other && name && name->isEqual(other);
}

void FilterServer::setTimer(GPTimer* timer) {
    GPMutexLock lock(mutex_);
    GPTimer* old = timer_.exchange(timer, std::memory_order_acq_rel);
    if (old && old != timer) old->release();
}

void FilterServer::setDownState(GPTimer* timer) {
    setActive(false);
    setTimer(timer);
}

void FilterServer::removeDownState() {
    GPMutexLock lock(mutex_);
    setActive(true);
    if (GPTimer* old = timer_.exchange(nullptr, std::memory_order_acq_rel)) old->release();
}

void FilterServer::lock() { mutex_->lock(); }

void FilterServer::unlock() { mutex_->unlock(); }

GPString* FilterServer::className() { return GPString::string("FilterServer"); }
