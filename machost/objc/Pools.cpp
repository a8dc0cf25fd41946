#include "machost/objc/Pools.h"

#include <cstdint>
#include <vector>

namespace machost::objc {
namespace {

struct Waiting {
    std::vector<ObjectRef> objects;

    void releaseDownTo(std::size_t size) {
        while (objects.size() > size) {
            ObjectRef last = objects.back();
            objects.pop_back();
            releaseObject(last);
        }
    }

    ~Waiting() { releaseDownTo(0); }
};

thread_local Waiting waiting;

} // namespace

ObjectRef autorelease(ObjectRef object) {
    if (object) waiting.objects.push_back(object);
    return object;
}

// A token is one more than the number of objects that wait outside the pool, since no token is null.
void* pushPool() { return reinterpret_cast<void*>(std::uintptr_t{waiting.objects.size()} + 1); }

void popPool(void* token) { waiting.releaseDownTo(reinterpret_cast<std::uintptr_t>(token) - 1); }

} // namespace machost::objc
