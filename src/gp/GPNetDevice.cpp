#include "gp/GPNetDevice.h"

#include "gp/GPArray.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/GPThread.h"
#include "gp/Owned.h"
#include "platform/InterfaceEntries.h"
#include "platform/NetworkChanges.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <utility>

namespace {

constexpr int addressTextLimit = 46;
constexpr int macLength = 6;
constexpr int listingStep = 512;

std::atomic<void (*)()> callback{nullptr};

GPNetDevice* deviceAt(GPArray* devices, int index) {
    return static_cast<GPNetDevice*>(devices->objectAtIndex(index));
}

GPNetDevice* deviceNamed(GPArray* devices, const char* name) {
    for (int i = 0; i < devices->count(); ++i)
        if (GPNetDevice* device = deviceAt(devices, i); device->adapterName()->isEqual(name)) return device;
    return nullptr;
}

bool isWanted(int family, GPIPType type) {
    if (family == platform::entry::familyIPv4) return type != GPIPTypeV6;
    if (family == platform::entry::familyIPv6) return type != GPIPTypeV4;
    return false;
}

// The listing of the system's entries in a buffer that was large enough; null when the system gives none.
std::unique_ptr<char[]> fetchEntries(int socket, int& length) {
    int before = 0;
    for (int room = listingStep;; room += listingStep) {
        auto buffer = std::make_unique<char[]>(static_cast<std::size_t>(room));
        length = room;
        if (!platform::interfaceEntries().list(socket, buffer.get(), length)) return nullptr;
        length = std::min(length, room);
        if (length == before) return buffer;
        before = length;
    }
}

// Runs on the watch's thread. Which keys changed is not looked at.
void internalIPConfigChangedCallback() { callback.load()(); }

void* IPConfigChanges(void*) {
    platform::NetworkChanges& changes = platform::networkChanges();
    int error = 0;
    auto* watch = changes.create("createIPAddressListChangeCallback", internalIPConfigChangedCallback, error);
    if (!watch) return nullptr; // nobody is told
    while (threadKeepGoing.load(std::memory_order_relaxed))
        changes.run(watch);
    changes.release(watch);
    return nullptr;
}

} // namespace

// The walk over interface entries. The work area lives across entries: what one leaves in it, the next may
// read.
class GPNetDevice::EntryWalk {
public:
    EntryWalk(const char* entries, int length, GPIPType type)
        : entries_(entries), length_(length), type_(type), devices_(new GPArray) {}

    EntryWalk(const EntryWalk&) = delete;
    EntryWalk& operator=(const EntryWalk&) = delete;

    GPArray* run() {
        while (length_ - at_ >= platform::entry::nameSize + platform::entry::smallestAddress) {
            readEntry();
            at_ += platform::entry::nameSize +
                   std::max(platform::entry::smallestAddress, addressByte(platform::entry::lengthAt));
        }
        return devices_;
    }

private:
    void readEntry() {
        char name[platform::entry::nameSize + 1] = {};
        std::memcpy(name, entries_ + at_, platform::entry::nameSize);
        const int family = addressByte(platform::entry::familyAt);
        if (isWanted(family, type_)) readAddress(name, family);
        readHardwareAddress();
        Owned<GPString> mac = hardwareAddressText();
        GPNetDevice* device = deviceNamed(devices_, name);
        if (device && !device->macAddress_) device->takeMacAddress(mac.handOver());
        pending_ = device ? Owned<GPString>() : std::move(mac);
    }

    void readAddress(const char* name, int family) {
        const bool isIPv6 = family == platform::entry::familyIPv6;
        const char* address = bytesAt(
            isIPv6 ? platform::entry::addressIPv6At : platform::entry::addressIPv4At, isIPv6 ? 16 : 4);
        if (!address) return;
        std::memset(workArea_, 0, sizeof workArea_);
        inet_ntop(isIPv6 ? AF_INET6 : AF_INET, address, workArea_, addressTextLimit);
        GPNetDevice* device = deviceNamed(devices_, name);
        if (device) {
            auto text = Owned<GPString>::adopt(new GPString(workArea_));
            device->ipAddresses_->addObject(text.get());
            if (device->addressFamily_ != family) device->addressFamily_ = 0;
        } else {
            auto made = Owned<GPNetDevice>::adopt(new GPNetDevice(name, workArea_, family));
            devices_->addObject(made.get());
            device = made.get();
        }
        if (pending_) device->takeMacAddress(pending_.handOver());
    }

    // The family is not examined, so an IPv4 address with 6 as its third number is read as well.
    void readHardwareAddress() {
        if (addressByte(platform::entry::linkAddressLengthAt) != macLength) return;
        const char* address =
            bytesAt(platform::entry::linkDataAt + addressByte(platform::entry::linkNameLengthAt), macLength);
        if (address) std::memcpy(workArea_, address, macLength);
    }

    // Made for every entry, of whatever the work area holds. For an unwanted entry behind the
    // link entry that is the hardware address again.
    Owned<GPString> hardwareAddressText() const {
        const auto* bytes = reinterpret_cast<const unsigned char*>(workArea_);
        return Owned<GPString>::adopt(GPString::format("%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1],
                                                       bytes[2], bytes[3], bytes[4], bytes[5]));
    }

    // `count` bytes at that place of the entry's socket address; null where they leave the listing.
    const char* bytesAt(int place, int count) const {
        const int from = at_ + platform::entry::nameSize + place;
        return length_ - from >= count ? entries_ + from : nullptr;
    }

    int addressByte(int place) const {
        return static_cast<unsigned char>(entries_[at_ + platform::entry::nameSize + place]);
    }

    const char* const entries_;
    const int length_;
    const GPIPType type_;
    GPArray* const devices_;
    int at_ = 0;
    char workArea_[64] = {};
    Owned<GPString> pending_;
};

GPNetDevice::GPNetDevice(const char* name, const char* address, int family)
    : adapterName_(new GPString(name)), ipAddresses_(new GPArray), addressFamily_(family) {
    auto text = Owned<GPString>::adopt(new GPString(address));
    ipAddresses_->addObject(text.get());
}

GPNetDevice::GPNetDevice(GPString* macAddress) : macAddress_(macAddress) {}

GPNetDevice::~GPNetDevice() {
    if (adapterName_) adapterName_->release();
    if (ipAddresses_) ipAddresses_->release();
    if (macAddress_) macAddress_->release();
}

const char* GPNetDevice::cclassName() { return "GPNetDevice"; }

void GPNetDevice::takeMacAddress(GPString* address) {
    if (macAddress_) macAddress_->release();
    macAddress_ = address;
}

bool GPNetDevice::isEthernet() { return adapterName_->startsWith("en"); }

bool GPNetDevice::isLocalHost() {
    for (int i = 0; i < ipAddresses_->count(); ++i)
        if (static_cast<GPString*>(ipAddresses_->objectAtIndex(i))->isEqual("127.0.0.1")) return true;
    return false;
}

GPArray* GPNetDevice::devicesInEntries(const char* entries, int length, GPIPType type) {
    return EntryWalk(entries, length, type).run();
}

GPArray* GPNetDevice::deviceList(GPIPType type) {
    platform::InterfaceEntries& system = platform::interfaceEntries();
    const int socket = system.open();
    if (socket < 1) return nullptr;
    int length = 0;
    const auto entries = fetchEntries(socket, length);
    GPArray* devices = entries ? devicesInEntries(entries.get(), length, type) : nullptr;
    system.close(socket);
    return devices;
}

GPArray* GPNetDevice::ipAddresses(GPIPType) {
    auto devices = Owned<GPArray>::adopt(deviceList(GPIPTypeAny));
    if (!devices) return new GPArray;
    auto* addresses = new GPArray(2 * devices->count());
    for (int i = 0; i < devices->count(); ++i) {
        GPArray* own = deviceAt(devices.get(), i)->ipAddresses_;
        for (int j = 0; j < own->count(); ++j) {
            auto copy = Owned<GPString>::adopt(static_cast<GPString*>(own->objectAtIndex(j))->copy());
            addresses->addObject(copy.get());
        }
    }
    return addresses;
}

GPArray* GPNetDevice::macAddresses(GPIPType) {
    auto devices = Owned<GPArray>::adopt(deviceList(GPIPTypeAny));
    if (!devices) return new GPArray;
    auto* addresses = new GPArray(2 * devices->count());
    for (int i = 0; i < devices->count(); ++i) {
        GPNetDevice* device = deviceAt(devices.get(), i);
        if (!device->macAddress_ || device->isLocalHost()) continue;
        logf("device %d %s %s", i, device->adapterName_->cstr(), device->macAddress_->cstr());
        auto copy = Owned<GPString>::adopt(device->macAddress_->copy());
        addresses->addObject(copy.get());
    }
    return addresses;
}

bool GPNetDevice::convertIPToNetwork(GPIPType type, GPString* address, void* out) {
    return inet_pton(type == GPIPTypeV6 ? AF_INET6 : AF_INET, address->cstr(), out) != 0;
}

bool GPNetDevice::registerIPChanges(void (*changed)(), bool background) {
    callback.store(changed);
    if (background)
        GPThread::taskOnBackground(IPConfigChanges, nullptr);
    else
        IPConfigChanges(nullptr);
    return true;
}
