#include "gp/GPList.h"

#include "gp/GPMutex.h"
#include "gp/GPString.h"

namespace {

constexpr char className_[] = "GPList";

} // namespace

GPList::GPList()
    : ownNode_{}, head_(nullptr), tail_(nullptr), cursor_(nullptr), count_(0), holdsValues_(0),
      mutex_(nullptr) {}

GPList::~GPList() {
    if (mutex_) mutex_->release();
    mutex_ = nullptr;
    while (Node* node = head_) {
        head_ = node->next;
        if (!holdsValues_) static_cast<GPObject*>(node->value)->release();
        giveBack(node);
    }
}

GPString* GPList::className() { return GPString::string(className_); }

const char* GPList::cclassName() { return className_; }

GPList::Node* GPList::newNode(Node* next, Node* previous, void* value) {
    if (ownNode_.value) return new Node{next, previous, value};
    ownNode_ = {next, previous, value};
    return &ownNode_;
}

void GPList::giveBack(Node* node) {
    if (node != &ownNode_)
        delete node;
    else
        ownNode_.value = nullptr;
}

void GPList::append(void* value) {
    Node* node = newNode(nullptr, tail_, value);
    (tail_ ? tail_->next : head_) = node;
    tail_ = cursor_ = node;
    ++count_;
}

void GPList::unlink(Node* node) {
    (node->previous ? node->previous->next : head_) = node->next;
    (node->next ? node->next->previous : tail_) = node->previous;
    cursor_ = node->next;
    --count_;
    giveBack(node);
}

void GPList::addObject(GPObject* object) {
    GPMutexLock guard(mutex_);
    object->retain();
    append(object);
}

void GPList::addValue(void* value) {
    if (!value) return;
    GPMutexLock guard(mutex_);
    holdsValues_ = 1;
    append(value);
}

void GPList::push(GPObject* object) {
    if (object) addObject(object);
}

// Takes no lock, by rule, even on a safe() list.
bool GPList::looksEmpty() const NO_THREAD_SAFETY_ANALYSIS { return count_ < 1; }

GPObject* GPList::pop() {
    if (looksEmpty()) return nullptr;
    GPMutexLock guard(mutex_);
    if (!head_) return nullptr;
    auto* object = static_cast<GPObject*>(head_->value);
    unlink(head_);
    guard.unlock();
    object->release();
    return object;
}

void GPList::insertObject(void* after, GPObject* object) {
    object->retain();
    insertValue(after, object);
}

void GPList::insertValue(void* after, void* value) {
    if (!value) return;
    GPMutexLock guard(mutex_);
    Node* anchor = after ? head_ : nullptr;
    while (anchor && anchor->value != after) {
        anchor = anchor->next;
    }
    Node* next = anchor ? anchor->next : head_;
    Node* node = newNode(next, anchor, value);
    (anchor ? anchor->next : head_) = node;
    (next ? next->previous : tail_) = node;
    cursor_ = node;
    ++count_;
}

void GPList::insertObject(int index, GPObject* object) { insertObject(valueAtIndex(index), object); }

void GPList::insertValue(int index, void* value) { insertValue(valueAtIndex(index), value); }

GPObject* GPList::objectAtIndex(int index) { return static_cast<GPObject*>(valueAtIndex(index)); }

void* GPList::valueAtIndex(int index) {
    GPMutexLock guard(mutex_);
    cursor_ = index >= 0 ? head_ : nullptr;
    for (int at = 0; cursor_ && at < index; ++at) {
        cursor_ = cursor_->next;
    }
    return cursor_ ? cursor_->value : nullptr;
}

int GPList::indexOfObject(void* value) {
    GPMutexLock guard(mutex_);
    int index = 0;
    for (cursor_ = value ? head_ : nullptr; cursor_; cursor_ = cursor_->next, ++index) {
        if (cursor_->value == value) return index;
    }
    return -1;
}

GPObject* GPList::removeObject(GPObject* object) {
    removeValue(object);
    // Released even when it was not there.
    object->release();
    return object;
}

void* GPList::removeValue(void* value) {
    if (!value) return nullptr;
    GPMutexLock guard(mutex_);
    if (!cursor_ || cursor_->value != value) {
        cursor_ = head_;
        while (cursor_ && cursor_->value != value) {
            cursor_ = cursor_->next;
        }
    }
    if (!cursor_) return nullptr;
    unlink(cursor_);
    return value;
}

GPObject* GPList::removeObjectAtIndex(int index) {
    auto* object = static_cast<GPObject*>(removeValueAtIndex(index));
    if (object) object->release();
    return object;
}

void* GPList::removeValueAtIndex(int index) { return removeValue(valueAtIndex(index)); }

GPObject* GPList::firstObject() {
    GPMutexLock guard(mutex_);
    cursor_ = head_;
    return cursor_ ? static_cast<GPObject*>(cursor_->value) : nullptr;
}

GPObject* GPList::nextObject() {
    GPMutexLock guard(mutex_);
    if (cursor_) cursor_ = cursor_->next;
    return cursor_ ? static_cast<GPObject*>(cursor_->value) : nullptr;
}

GPObject* GPList::currentObject() {
    GPMutexLock guard(mutex_);
    return cursor_ ? static_cast<GPObject*>(cursor_->value) : nullptr;
}

GPList::Node* GPList::place() const {
    GPMutexLock guard(mutex_);
    return cursor_;
}

void GPList::moveTo(Node* place) {
    GPMutexLock guard(mutex_);
    cursor_ = place;
}

int GPList::count() {
    GPMutexLock guard(mutex_);
    return count_;
}

bool GPList::isEmpty() { return count() == 0; }

void GPList::safe() {
    if (!mutex_) mutex_ = new GPMutex();
}

// Nothing is locked, nor needs to be, until safe() has made the lock. The check takes it for always there.
void GPList::lock() NO_THREAD_SAFETY_ANALYSIS {
    if (mutex_) mutex_->lock();
}

void GPList::unlock() NO_THREAD_SAFETY_ANALYSIS {
    if (mutex_) mutex_->unlock();
}
