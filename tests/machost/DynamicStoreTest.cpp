// The store of the system's state: its keys, and watches of network services and of the console, called as the program
// calls them.

#include "lab/WorldServer.h"
#include "machost/Imports.h"
#include "machost/Settings.h"
#include "machost/corefoundation/Collections.h"
#include "machost/corefoundation/Strings.h"
#include "support/NetworkNamespace.h"
#include "support/Patience.h"
#include "support/PlayedConsoleUser.h"
#include "support/PlayedNetworkChanges.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <future>
#include <thread>

namespace {

namespace cf = machost::corefoundation;
using machost::Held;
using machost::ObjectRef;

const void* address(const char* symbol) { return machost::findImport("", symbol)->address; }

template <class Function>
Function* played(const char* symbol) {
    return reinterpret_cast<Function*>(const_cast<void*>(address(symbol)));
}

// What a variable of the store's points at.
const void* constant(const char* symbol) { return *static_cast<const void* const*>(address(symbol)); }

// The pattern of every network service's state of that kind; of the services themselves for null.
Held pattern(const char* entity) {
    return Held::adopt(played<ObjectRef(const void*, const void*, const void*, const void*)>(
        "_SCDynamicStoreKeyCreateNetworkServiceEntity")(nullptr, constant("_kSCDynamicStoreDomainState"),
                                                        constant("_kSCCompAnyRegex"),
                                                        entity ? constant(entity) : nullptr));
}

Held arrayOf(const std::vector<const void*>& elements) { return Held::adopt(cf::makeArray(elements)); }

// What has been told of changes; the first one of a run ends it.
struct Told {
    int times = 0;
    const void* store = nullptr;
    std::vector<std::string> keys;
    ObjectRef loop = nullptr, source = nullptr;
};

void leaveLoop(const Told& told) {
    played<void(ObjectRef, ObjectRef, const void*)>("_CFRunLoopRemoveSource")(
        told.loop, told.source, constant("_kCFRunLoopDefaultMode"));
}

void noteChange(const void* store, const void* keys, void* information) {
    auto& told = *static_cast<Told*>(information);
    ++told.times;
    told.store = store;
    told.keys.clear();
    for (const Held& key : cf::elementsOf(keys))
        told.keys.push_back(cf::textOf(key.get()));
    leaveLoop(told);
}

// SCDynamicStoreContext
struct Context {
    std::int64_t version;
    void* information;
    const void* calls[3];
};

class DynamicStore : public testing::Test {
protected:
    DynamicStore() {
        const Held name = Held::adopt(cf::makeString("watch"));
        const Context context{0, &told, {}};
        store =
            Held::adopt(played<ObjectRef(const void*, const void*, decltype(&noteChange), const Context*)>(
                "_SCDynamicStoreCreate")(nullptr, name.get(), noteChange, &context));
    }

    bool setKeys(const void* keys, const void* patterns) const {
        return played<std::uint8_t(const void*, const void*, const void*)>(
                   "_SCDynamicStoreSetNotificationKeys")(store.get(), keys, patterns) != 0;
    }

    bool watchNetwork() const {
        const Held ipv4 = pattern("_kSCEntNetIPv4"), ipv6 = pattern("_kSCEntNetIPv6");
        return setKeys(nullptr, arrayOf({ipv4.get(), ipv6.get()}).get());
    }

    bool watchConsole() const {
        const Held key =
            Held::adopt(played<ObjectRef(const void*)>("_SCDynamicStoreKeyCreateConsoleUser")(nullptr));
        return setKeys(arrayOf({key.get()}).get(), nullptr);
    }

    static int error() { return played<int()>("_SCError")(); }

    // Runs this thread's loop until the store has told of a change.
    void runUntilTold() {
        const Held source = Held::adopt(played<ObjectRef(const void*, const void*, std::int64_t)>(
            "_SCDynamicStoreCreateRunLoopSource")(nullptr, store.get(), 0));
        told.loop = played<ObjectRef()>("_CFRunLoopGetCurrent")();
        told.source = source.get();
        played<void(ObjectRef, ObjectRef, const void*)>("_CFRunLoopAddSource")(
            told.loop, told.source, constant("_kCFRunLoopDefaultMode"));
        const int before = told.times;
        std::promise<void> ended;
        std::thread limit([&] {
            if (ended.get_future().wait_for(testsupport::patience) == std::future_status::timeout)
                leaveLoop(told);
        });
        played<void()>("_CFRunLoopRun")();
        ended.set_value();
        limit.join();
        EXPECT_EQ(told.times, before + 1);
    }

    Told told;
    Held store;
};

class PlayedStore : public DynamicStore {
protected:
    PlayedStore() {
        network.install();
        console.install();
        machost::settings().world = folder.file("world");
        // Never taken down: it answers until the process ends.
        auto& server = *new lab::WorldServer(folder.file("world"));
        std::thread([&server] { server.serve(getpid(), [] { return false; }); }).detach();
    }

    testsupport::TemporaryFolder folder;
    testsupport::PlayedNetworkChanges& network = *new testsupport::PlayedNetworkChanges;
    testsupport::PlayedConsoleUser& console = *new testsupport::PlayedConsoleUser;
};

TEST_F(DynamicStore, NamesTheStateOfAllNetworkServices) {
    EXPECT_EQ(cf::textOf(pattern("_kSCEntNetIPv4").get()), "State:/Network/Service/[^/]+/IPv4");
    EXPECT_EQ(cf::textOf(pattern("_kSCEntNetIPv6").get()), "State:/Network/Service/[^/]+/IPv6");
    EXPECT_EQ(cf::textOf(pattern(nullptr).get()), "State:/Network/Service/[^/]+");
}

TEST_F(DynamicStore, NeedsAName) {
    const auto create = played<ObjectRef(const void*, const void*, void*, void*)>("_SCDynamicStoreCreate");
    EXPECT_EQ(create(nullptr, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(error(), 1002); // kSCStatusInvalidArgument
}

TEST_F(PlayedStore, TellsOfTheNetworksChanges) {
    EXPECT_TRUE(watchNetwork());
    EXPECT_EQ(network.name(), "watch");
    network.change();
    runUntilTold();
    EXPECT_EQ(told.store, store.get());
    EXPECT_EQ(told.keys, (std::vector<std::string>{"State:/Network/Service/[^/]+/IPv4",
                                                   "State:/Network/Service/[^/]+/IPv6"}));
    network.change();
    runUntilTold();
    EXPECT_EQ(told.times, 2);
}

TEST_F(PlayedStore, KeepsAChangeUntilALoopRuns) {
    EXPECT_TRUE(watchNetwork());
    network.change();
    EXPECT_TRUE(network.waitUntilDelivered());
    EXPECT_EQ(told.times, 0);
    runUntilTold();
    EXPECT_EQ(told.times, 1);
}

TEST_F(PlayedStore, TellsWhyTheNetworkCannotBeWatched) {
    network.refuse();
    EXPECT_FALSE(watchNetwork());
    EXPECT_EQ(error(), 1001); // kSCStatusFailed
}

TEST_F(PlayedStore, WatchesTheConsoleByItsKeyAndOtherKeysNotAtAll) {
    const Held other = Held::adopt(cf::makeString("Setup:/Network/Service/[^/]+/IPv4"));
    EXPECT_TRUE(setKeys(nullptr, arrayOf({other.get()}).get()));
    EXPECT_TRUE(setKeys(arrayOf({pattern("_kSCEntNetIPv4").get()}).get(), nullptr));
    EXPECT_EQ(network.created(), 0);
    EXPECT_TRUE(watchConsole());
    EXPECT_EQ(network.created(), 0);
}

TEST_F(DynamicStore, OnThisMachineTellsOfAddressesThatComeAndGo) {
    const auto result = testsupport::runInNetworkNamespace([this] {
        EXPECT_TRUE(watchNetwork());
        EXPECT_EQ(std::system("ip address add 192.0.2.1/32 dev lo"), 0);
        runUntilTold();
        EXPECT_EQ(std::system("ip address add 2001:db8::1/128 dev lo nodad"), 0);
        runUntilTold();
        EXPECT_EQ(std::system("ip address delete 192.0.2.1/32 dev lo"), 0);
        runUntilTold();
        EXPECT_EQ(told.times, 3);
    });
    if (result == testsupport::NamespaceResult::unavailable) GTEST_SKIP() << "no network namespaces here";
    EXPECT_EQ(result, testsupport::NamespaceResult::passed);
}

} // namespace
