#include "agent/UpdatePrompts.h"

#include "gp/GPLog.h"

#include <cstring>

std::atomic<std::uint8_t> updating{0};
std::atomic<platform::UserNotification*> notifyUpdatePopUp{nullptr};
std::atomic<platform::UserNotification*> notifyUpdatingPopUp{nullptr};

THREADPARAMETERS::THREADPARAMETERS(const char* address) : url(new char[std::strlen(address) + 1]) {
    std::strcpy(url, address);
}

// Downloads are not built yet: the address is logged about and given back.
void* updateThread(void* parameters) {
    auto* owned = static_cast<THREADPARAMETERS*>(parameters);
    logf("updateThread entry");
    delete[] owned->url;
    owned->release();
    return nullptr;
}
