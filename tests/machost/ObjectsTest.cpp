// Counted objects, pools and messages, as the frameworks share them.

#include "machost/objects/Object.h"

#include "machost/Imports.h"
#include "machost/objc/Messages.h"
#include "machost/objc/Pools.h"
#include "support/Eventually.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using machost::Class;
using machost::createObject;
using machost::Held;
using machost::ObjectRef;
using machost::releaseObject;
using machost::reportLeaks;
using machost::retainObject;

int gone = 0;
const Class kind{&machost::classOfClasses, &machost::rootClass, {}, nullptr, "thing", [](void*) { ++gone; }};

ObjectRef makeThing() { return createObject<int>(kind, 7); }

TEST(CountedObjects, GoWithTheirLastReference) {
    ObjectRef thing = makeThing();
    retainObject(thing);
    releaseObject(thing);
    EXPECT_EQ(gone, 0);
    releaseObject(thing);
    EXPECT_EQ(gone, 1);
    EXPECT_EQ(reportLeaks(), 0);
}

TEST(CountedObjects, ThatAreReleasedTwiceEndTheProcessWithTheirName) {
    ObjectRef thing = makeThing();
    releaseObject(thing);
    EXPECT_DEATH(releaseObject(thing), "machost: release of a thing that has gone");
    EXPECT_DEATH(retainObject(thing), "machost: retain of a thing that has gone");
}

TEST(CountedObjects, ThatAreLeftAreToldByTheirNames) {
    const Held held = Held::adopt(makeThing());
    ObjectRef other = makeThing();
    testing::internal::CaptureStderr();
    EXPECT_EQ(reportLeaks(), 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "machost: 2 thing never released\n");
    releaseObject(other);
}

TEST(CountedObjects, OfAThreadThatStillRunsAreNotCalledLeft) {
    ObjectRef thing = makeThing();
    std::thread([thing] {
        machost::giveToThisThread(thing);
        std::thread([] { EXPECT_EQ(reportLeaks(), 0); }).join();
    }).join();
    // A thread that was joined may still be on its way out.
    EXPECT_TRUE(testsupport::eventually([] { return reportLeaks() == 1; }));
}

TEST(CountedObjects, OfConstantsAndClassesHaveNoCount) {
    ObjectRef self = const_cast<Class*>(&kind);
    for (int i = 0; i < 3; ++i)
        releaseObject(self);
    EXPECT_EQ(retainObject(self), self);
    retainObject(nullptr);
    releaseObject(nullptr);
}

TEST(AutoreleasePools, ReleaseWhatCameSinceTheirPush) {
    machost::objc::Pool outer;
    machost::objc::autorelease(makeThing());
    {
        const machost::objc::Pool inner;
        machost::objc::autorelease(makeThing());
        machost::objc::autorelease(makeThing());
        EXPECT_EQ(gone, 0);
    }
    EXPECT_EQ(gone, 2);
}

TEST(AutoreleasePools, OfAThreadGoWithIt) {
    std::thread([] { machost::objc::autorelease(makeThing()); }).join();
    EXPECT_EQ(gone, 1);
}

TEST(Messages, GoToTheNearestClassThatAnswers) {
    ObjectRef thing = makeThing();
    const auto* own = machost::objc::send<const void*>(thing, "class");
    EXPECT_EQ(own, &kind);
    EXPECT_TRUE(machost::objc::send<signed char>(thing, "isKindOfClass:", &machost::rootClass));
    EXPECT_EQ(machost::objc::selectorNamed("a:b:"),
              machost::objc::selectorNamed(std::string("a:b:").c_str()));
    releaseObject(thing);
}

TEST(Messages, ThatNothingPlaysEndTheProcessWithTheirName) {
    ObjectRef thing = makeThing();
    EXPECT_EXIT(machost::objc::send<void>(thing, "dance:", 1), testing::ExitedWithCode(70),
                "machost: nothing plays -\\[thing dance:\\]");
    EXPECT_EXIT(machost::objc::send<void>(const_cast<Class*>(&kind), "alloc"), testing::ExitedWithCode(70),
                "machost: nothing plays \\+\\[thing alloc\\]");
    releaseObject(thing);
}

// _objc_msgSend as the program calls it: every register of an argument comes through, and nil answers zero.
TEST(Messages, LeaveTheArgumentsAsTheyAre) {
    static const machost::Import* const send =
        machost::findImport("/usr/lib/libobjc.A.dylib", "_objc_msgSend");
    const auto toNil = reinterpret_cast<double (*)(ObjectRef, const char*)>(const_cast<void*>(send->address));
    EXPECT_EQ(toNil(nullptr, machost::objc::selectorNamed("timeIntervalSinceNow")), 0.0);
    const auto isKind = reinterpret_cast<signed char (*)(ObjectRef, const char*, const Class*)>(
        const_cast<void*>(send->address));
    ObjectRef thing = makeThing();
    EXPECT_EQ(isKind(thing, machost::objc::selectorNamed("isKindOfClass:"), &kind), 1);
    releaseObject(thing);
}

} // namespace
