// Calls of Core Foundation and IOKit with more to them than the daemon's tests come by.

#include "machost/Imports.h"
#include "machost/corefoundation/Collections.h"
#include "machost/corefoundation/Strings.h"
#include "machost/iokit/Library.h"
#include "machost/objc/Messages.h"
#include "machost/objc/Pools.h"
#include "support/Eventually.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

namespace cf = machost::corefoundation;
using machost::Held;
using machost::ObjectRef;

template <class Function>
Function* played(const char* symbol) {
    return reinterpret_cast<Function*>(const_cast<void*>(machost::findImport("", symbol)->address));
}

TEST(PlayedDictionary, KeepsTheFirstValueOfAKey) {
    const auto make =
        played<ObjectRef(const void*, std::int64_t, const void*, const void*)>("_CFDictionaryCreateMutable");
    const Held dictionary =
        Held::adopt(make(nullptr, 0, machost::findImport("", "_kCFTypeDictionaryKeyCallBacks")->address,
                         machost::findImport("", "_kCFTypeDictionaryValueCallBacks")->address));
    const Held key = Held::adopt(cf::makeString("key")), same = Held::adopt(cf::makeString("key")),
               first = Held::adopt(cf::makeString("1")), second = Held::adopt(cf::makeString("2"));
    const auto add = played<void(void*, const void*, const void*)>("_CFDictionaryAddValue");
    add(dictionary.get(), key.get(), first.get());
    add(dictionary.get(), same.get(), second.get());
    EXPECT_EQ(cf::pairsOf(dictionary.get()).size(), 1u);
    EXPECT_EQ(cf::valueIn(dictionary.get(), same.get()), first.get());
}

TEST(PlayedRegistry, CountsItsEntriesAndTellsOfThoseThatAreLeft) {
    const auto open = played<std::uint32_t(std::uint32_t, const char*)>("_IORegistryEntryFromPath");
    const auto release = played<std::int32_t(std::uint32_t)>("_IOObjectRelease");
    EXPECT_EQ(open(0, "IOService:/nowhere"), 0u);
    const std::uint32_t entry = open(0, "IOService:/");
    testing::internal::CaptureStderr();
    EXPECT_EQ(machost::iokit::reportLeaks(), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "machost: 1 IOKit entries never released\n");
    EXPECT_EQ(release(entry), 0);
    EXPECT_EQ(machost::iokit::reportLeaks(), 0);
    EXPECT_NE(release(entry), 0);
}

TEST(PlayedRegistry, DoesNotCallLeftWhatAThreadThatStillRunsHolds) {
    const auto open = played<std::uint32_t(std::uint32_t, const char*)>("_IORegistryEntryFromPath");
    const auto release = played<std::int32_t(std::uint32_t)>("_IOObjectRelease");
    std::uint32_t entry = 0;
    std::thread([&] {
        entry = open(0, "IOService:/");
        std::thread([&] {
            EXPECT_EQ(machost::iokit::reportLeaks(), 0);
            EXPECT_EQ(release(open(0, "IOService:/")), 0);
            EXPECT_EQ(machost::iokit::reportLeaks(), 0); // what went was this thread's
        }).join();
    }).join();
    // A thread that was joined may still be on its way out.
    EXPECT_TRUE(testsupport::eventually([] { return machost::iokit::reportLeaks() == 1; }));
    EXPECT_EQ(release(entry), 0);
}

TEST(PlayedDirectoryClasses, TellByTheErrorsNumberWhatWasWrong) {
    const auto classNamed = [](const std::string& name) {
        return const_cast<void*>(machost::findImport("", "_OBJC_CLASS_$_" + name)->address);
    };
    const machost::objc::Pool pool;
    const Held nowhere = Held::adopt(cf::makeString("/nowhere")),
               local = Held::adopt(cf::makeString("/Local/Default"));
    ObjectRef error = nullptr;
    const auto code = [&] { return machost::objc::send<std::int64_t>(error, "code"); };
    const auto node = [&](const Held& name) {
        return machost::objc::send<ObjectRef>(classNamed("ODNode"),
                                              "nodeWithSession:name:error:", ObjectRef{}, name.get(), &error);
    };
    EXPECT_EQ(node(nowhere), nullptr);
    EXPECT_EQ(code(), 2000); // kODErrorNodeUnknownName
    EXPECT_EQ(machost::objc::send<ObjectRef>(classNamed("ODNode"), "nodeWithSession:type:error:", ObjectRef{},
                                             std::uint32_t{1}, &error),
              nullptr);
    EXPECT_EQ(code(), 2001); // kODErrorNodeUnknownType
    EXPECT_EQ(machost::objc::send<ObjectRef>(classNamed("ODQuery"),
                                             "queryWithNode:forRecordTypes:attribute:matchType:queryValues:"
                                             "returnAttributes:maximumResults:error:",
                                             node(local), local.get(), local.get(), std::uint32_t{0x2002},
                                             local.get(), local.get(), std::int64_t{0}, &error),
              nullptr);
    EXPECT_EQ(code(), 3101); // kODErrorQueryUnsupportedMatchType
}

} // namespace
