#pragma once

// GPList: doubly linked list of objects or of plain pointers with one built-in cursor, also a first-in,
// first-out queue through push and pop. Values and objects behave as in GPArray.
//
// Not thread-safe, and reading moves the cursor: whoever shares one locks for readers too. One iteration at a
// time: firstObject, then currentObject and nextObject in a loop; after the removal of the cursor's element
// the cursor stands on the next one, so that step calls no nextObject.

#include "gp/GPObject.h"
#include "gp/ThreadSafety.h"

#include <cstdint>

class GPMutex;
class GPString;

class GPList : public GPObject {
public:
    GPList();
    ~GPList() override;

    GPString* className() override;
    const char* cclassName() override;

    // Append at the tail and leave the cursor there. The object must not be null; a null value is ignored.
    void addObject(GPObject* object);
    void addValue(void* value);

    // As addObject, but null is ignored.
    void push(GPObject* object);

    // Takes the head, releases it and returns the pointer; null on an empty list. The cursor goes to the node
    // behind.
    GPObject* pop();

    // Insert directly behind the first node that holds `after`, or as head if there is none. The object must
    // not be null; a null value is ignored. The cursor goes to the new node.
    void insertObject(void* after, GPObject* object);
    void insertValue(void* after, void* value);

    // As above, behind the value at that index: 0 puts it in second place.
    void insertObject(int index, GPObject* object);
    void insertValue(int index, void* value);

    // The value, borrowed, or null; the cursor goes to the node reached.
    GPObject* objectAtIndex(int index);
    void* valueAtIndex(int index);

    // First position by identity, -1 for null or absent; the cursor goes to the node found.
    int indexOfObject(void* value);

    // removeValue, then a release of the argument, whether or not it was found. Returns the argument, which
    // must not be null.
    GPObject* removeObject(GPObject* object);

    // Unlinks the cursor's node if it holds the value, else the first that does, and puts the cursor behind
    // it. Returns the value, or null with a null cursor. Valid only with the cursor on a node, so look the
    // value up first.
    void* removeValue(void* value);

    // valueAtIndex and removeValue. The object form has released what it returns; its index must be valid.
    GPObject* removeObjectAtIndex(int index);
    void* removeValueAtIndex(int index);

    // The head's value, the value behind the cursor, the cursor's value: borrowed, null where there is none.
    // The first two move the cursor.
    GPObject* firstObject();
    GPObject* nextObject();
    GPObject* currentObject();

    // The node that the cursor stands on, and the way back to it without a walk. A place is valid until its element
    // is removed.
    struct Node {
        Node* next;
        Node* previous;
        void* value;
    };
    Node* place() const;
    void moveTo(Node* place);

    int count();
    bool isEmpty();

    // Makes the lock that lock() and unlock() use; without it they do nothing.
    void safe();
    bool isSafe() const { return mutex_ != nullptr; }
    void lock() ACQUIRE(mutex_);
    void unlock() RELEASE(mutex_);

private:
    Node* newNode(Node* next, Node* previous, void* value) REQUIRES(mutex_);
    void giveBack(Node* node) REQUIRES(mutex_);
    void append(void* value) REQUIRES(mutex_);
    void unlink(Node* node) REQUIRES(mutex_);
    bool looksEmpty() const;

    // The node of a list with one entry, as the buckets of a map mostly are; free while its value is null.
    Node ownNode_ GUARDED_BY(mutex_);
    Node* head_ GUARDED_BY(mutex_);
    Node* tail_ GUARDED_BY(mutex_);
    Node* cursor_ GUARDED_BY(mutex_);
    std::int32_t count_ GUARDED_BY(mutex_);
    std::uint8_t holdsValues_ GUARDED_BY(mutex_);
    GPMutex* mutex_;
};
