// Several objects in one piece of memory, which goes with the last of them.

#include "gp/SharedPiece.h"

#include "gp/GPString.h"
#include "support/AllocationCounter.h"
#include "support/Objects.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

using testsupport::TrackedObject;

TEST(SharedPiece, StaysUntilTheLastOfItsObjectsGoes) {
    const testsupport::AllocationCounter allocations;
    SharedPiece& piece =
        *SharedPiece::withRoomFor(SharedPiece::sizeOf<TrackedObject>() + GPString::sizeIn("text"));
    int destroyed = 0;
    auto* object = piece.make<TrackedObject>(destroyed);
    GPString* string = GPString::in(piece, "text");
    EXPECT_EQ(allocations.count(), 1);

    object->release();
    EXPECT_EQ(destroyed, 1);
    EXPECT_STREQ(string->cstr(), "text");
    string->release();
    EXPECT_EQ(allocations.left(), 0);
}

TEST(SharedPiece, IsGivenBackOnceWhenItsObjectsGoOnSeveralThreads) {
    constexpr int parts = 3;
    for (int round = 0; round < 300; ++round) {
        SharedPiece& piece = *SharedPiece::withRoomFor(parts * SharedPiece::sizeOf<TrackedObject>());
        std::vector<int> destroyed(parts);
        std::vector<TrackedObject*> objects;
        for (int& count : destroyed)
            objects.push_back(piece.make<TrackedObject>(count));
        std::vector<std::thread> threads;
        for (TrackedObject* object : objects)
            threads.emplace_back([object] { object->release(); });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(destroyed, std::vector<int>(parts, 1));
    }
}

TEST(SharedPiece, HasRoomForTextsOfAnyLengthBetweenItsObjects) {
    for (std::size_t length = 0; length < 40; ++length) {
        const std::string text(length, 'x');
        SharedPiece& piece =
            *SharedPiece::withRoomFor(2 * GPString::sizeIn(text) + SharedPiece::sizeOf<TrackedObject>());
        int destroyed = 0;
        GPString* first = GPString::in(piece, text);
        auto* between = piece.make<TrackedObject>(destroyed);
        GPString* last = GPString::in(piece, text);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(between) % alignof(TrackedObject), 0U);
        between->release();
        EXPECT_EQ(first->cstr(), text);
        EXPECT_EQ(last->cstr(), text);
        first->release();
        last->release();
        EXPECT_EQ(destroyed, 1);
    }
}

TEST(SharedPiece, LeavesATextToItselfThatHasChanged) {
    SharedPiece& piece = *SharedPiece::withRoomFor(2 * GPString::sizeIn("text"));
    GPString* changed = GPString::in(piece, "text");
    GPString* other = GPString::in(piece, "text");
    changed->append(" and more")->uppercase();
    EXPECT_STREQ(other->cstr(), "text");
    other->release();
    EXPECT_STREQ(changed->cstr(), "TEXT AND MORE");
    changed->release();
}
