#pragma once

// SharedPiece: one piece of memory for several objects that mostly come and go together. Each is an object like any
// other, with references of its own; the memory goes with the last of them, on whichever thread that is.

#include <atomic>
#include <cstddef>
#include <new>
#include <utility>

class SharedPiece {
public:
    // The room that an object takes, and that a text takes.
    template <class Object>
    static constexpr std::size_t sizeOf() {
        return sizeof(SharedPiece*) + sizeof(Member<Object>);
    }
    static constexpr std::size_t sizeOfText(std::size_t length) {
        return (length + sizeof(void*)) / sizeof(void*) * sizeof(void*);
    }

    // A new piece, which belongs to the objects that are then made in it: one at least, all by one thread, and before
    // the first of them goes.
    static SharedPiece* withRoomFor(std::size_t size);

    // A new object, whose last release gives back its share of the piece.
    template <class Object, class... Arguments>
    Object* make(Arguments&&... arguments) {
        static_assert(alignof(Object) <= alignof(void*));
        // In front of each object stands where it belongs.
        auto** const home = static_cast<SharedPiece**>(take(sizeOf<Object>()));
        *home = this;
        living_.fetch_add(1, std::memory_order_relaxed);
        return ::new (static_cast<void*>(home + 1)) Member<Object>(std::forward<Arguments>(arguments)...);
    }

    // Room for a text of that length and its NUL, which stays as long as the piece.
    char* roomForText(std::size_t length) { return static_cast<char*>(take(sizeOfText(length))); }

private:
    template <class Object>
    class Member final : public Object {
    public:
        template <class... Arguments>
        explicit Member(Arguments&&... arguments) : Object(std::forward<Arguments>(arguments)...) {}

        static void* operator new(std::size_t size) = delete;
        static void operator delete(void* memory) { leave(memory, sizeof(Member)); }
    };

    explicit SharedPiece(char* room) : next_(room) {}

    void* take(std::size_t size) { return std::exchange(next_, next_ + size); }
    static void leave(void* object, std::size_t size);

    std::atomic<int> living_{0};
    char* next_; // where the next object goes
};
