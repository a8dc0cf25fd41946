// The writers' lock of a GPSyncdArray, and what is in force at each lock that a writer takes.

#include "gp/GPSyncdArray.h"

#include "gp/GPArray.h"
#include "gp/GPString.h"
#include "support/LockCounter.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

// Tells when it is retained, as it is when an array takes it in, and when its class is asked for.
class Element : public GPObject {
public:
    GPObject* retain() override {
        if (asRetained) asRetained();
        return GPObject::retain();
    }
    const char* cclassName() override {
        if (asAsked) asAsked();
        return GPObject::cclassName();
    }

    std::function<void()> asRetained;
    std::function<void()> asAsked;
};

// The array and what is in it live for the whole run, as all of their kind do.
class GPSyncdArrayLocks : public testing::Test {
protected:
    void SetUp() override {
        if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the place of the lock functions";
    }

    static std::vector<GPObject*>& forEver() {
        static auto* objects = new std::vector<GPObject*>;
        return *objects;
    }

    template <class T>
    static T* kept(T* object) {
        forEver().push_back(object);
        return object;
    }

    // A word for each lock that a writer takes: how many it holds then, and whether the array that was current before
    // still is. The first of them is the writers' lock; the others guard references of arrays.
    std::string locksOf(const std::function<void()>& write) {
        std::string words;
        GPArray* const before = array_.getInternalArray();
        testsupport::LockCounter locks;
        locks.behindEachLock([&] {
            words += std::to_string(locks.held()) + (array_.getInternalArray() == before ? "old " : "new ");
        });
        write();
        EXPECT_EQ(locks.held(), 0);
        return words;
    }

    GPString* text(const char* content) { return kept(new GPString(content)); }

    GPSyncdArray& array_ = *kept(new GPSyncdArray(2));
    Element& element_ = *kept(new Element);
};

// Locks in the order of their taking.
constexpr char inPlace[] = "1old 2old 1old ";            // own, snapshot's, back again behind the own
constexpr char replaced[] = "1old 2old 2old 2new 1new "; // ... new array's, old array's first release
constexpr char nothing[] = "1old 2old 1old ";

} // namespace

TEST_F(GPSyncdArrayLocks, AddObjectGoesInPlaceUnderTheWritersLock) {
    EXPECT_EQ(locksOf([&] { array_.addObject(&element_); }), inPlace);
}

TEST_F(GPSyncdArrayLocks, AddObjectToAFullArrayReplacesItUnderTheWritersLock) {
    array_.addObject(kept(new GPObject));
    array_.addObject(kept(new GPObject));

    EXPECT_EQ(locksOf([&] { array_.addObject(&element_); }), replaced);
}

TEST_F(GPSyncdArrayLocks, RemoveObjectReplacesTheArrayUnderTheWritersLock) {
    array_.addObject(&element_);

    EXPECT_EQ(locksOf([&] { array_.removeObject(kept(new GPObject)); }), nothing);
    EXPECT_EQ(locksOf([&] { array_.removeObject(&element_); }), replaced);
}

TEST_F(GPSyncdArrayLocks, RemoveAllReplacesTheArrayUnderTheWritersLock) {
    EXPECT_EQ(locksOf([&] { array_.removeAll(); }), "1old ");
    array_.addObject(&element_);

    EXPECT_EQ(locksOf([&] { array_.removeAll(); }), "1old 2old 2new ");
}

TEST_F(GPSyncdArrayLocks, StringsAreSoughtAndAddedUnderTheWritersLock) {
    EXPECT_EQ(locksOf([&] { array_.addString(text("one")); }), inPlace);
    EXPECT_EQ(locksOf([&] { array_.addString(text("one")); }), nothing);
    array_.addString(text("two"));
    EXPECT_EQ(locksOf([&] { array_.addString(text("three")); }), replaced);
    EXPECT_EQ(locksOf([&] { array_.addString(text("")); }), "");
    EXPECT_EQ(locksOf([&] { array_.addString(nullptr); }), "");
}

TEST_F(GPSyncdArrayLocks, StringsAreSoughtAndRemovedUnderTheWritersLock) {
    array_.addString(text("one"));

    EXPECT_EQ(locksOf([&] { array_.removeString(text("two")); }), nothing);
    EXPECT_EQ(locksOf([&] { array_.removeString(text("one")); }), replaced);
    EXPECT_EQ(locksOf([&] { array_.removeString(text("")); }), "");
    EXPECT_EQ(locksOf([&] { array_.removeString(nullptr); }), "");
}

TEST_F(GPSyncdArrayLocks, ReadersTakeNoWritersLock) {
    array_.addString(text("one"));

    EXPECT_EQ(locksOf([&] { array_.getInternalArray(); }), "");
    EXPECT_EQ(locksOf([&] { array_.getArray()->release(); }), "1old 1old ");
    EXPECT_EQ(locksOf([&] { array_.findStringObject("one"); }), "1old 1old ") << "a snapshot's reference";
}

TEST_F(GPSyncdArrayLocks, TheSearchForATextIsUnderTheSameLockAsTheChange) {
    array_.addObject(&element_);
    std::vector<long> held;
    testsupport::LockCounter locks;
    element_.asAsked = [&] { held.push_back(locks.held()); };

    array_.addString(text("one"));
    array_.removeString(text("one"));

    element_.asAsked = nullptr;
    EXPECT_EQ(held, (std::vector<long>{1, 1}));
}

TEST_F(GPSyncdArrayLocks, ANewArrayBecomesCurrentWithItsElementInIt) {
    array_.addObject(kept(new GPObject));
    array_.addObject(kept(new GPObject));
    GPArray* const full = array_.getInternalArray();
    GPArray* asTaken = nullptr;
    element_.asRetained = [&] { asTaken = array_.getInternalArray(); };

    array_.addObject(&element_);

    element_.asRetained = nullptr;
    EXPECT_EQ(asTaken, full);
    EXPECT_NE(array_.getInternalArray(), full);
}

TEST_F(GPSyncdArrayLocks, ArraysThatAreMadeHaveTheirReferencesLockBeforeAnybodySeesThem) {
    // Two first readers would each make one.
    const auto locksOfReader = [](GPArray* made) {
        const testsupport::LockCounter locks;
        made->retain();
        made->release();
        return locks.count();
    };
    array_.addObject(&element_);

    EXPECT_EQ(locksOfReader(kept(new GPSyncdArray)->getInternalArray()), 1);
    EXPECT_EQ(locksOfReader(array_.clone(array_.getInternalArray(), -1)), 1);
    array_.removeObject(&element_);
    EXPECT_EQ(locksOfReader(array_.getInternalArray()), 1);
    array_.addObject(&element_);
    array_.removeAll();
    EXPECT_EQ(locksOfReader(array_.getInternalArray()), 1);
}
