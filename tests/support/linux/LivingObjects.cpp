#include "support/LivingObjects.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>

class GPObject;

// GPObject::GPObject and GPObject::~GPObject, as the derived classes call them.
extern "C" {
void __real__ZN8GPObjectC2Ev(GPObject*);
void __real__ZN8GPObjectD2Ev(GPObject*);
void __wrap__ZN8GPObjectC2Ev(GPObject*);
void __wrap__ZN8GPObjectD2Ev(GPObject*);
}

namespace testsupport {
namespace {

std::atomic<long> living{0};

} // namespace

long livingObjects() { return living; }

long livingObjectsAtRest() {
    constexpr int looks = 20;
    const std::filesystem::directory_iterator threads("/proc/self/task");
    long fewest = living;
    if (std::distance(begin(threads), end(threads)) == 1) return fewest;
    for (int i = 0; i < looks; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        fewest = std::min(fewest, living.load());
    }
    return fewest;
}

} // namespace testsupport

void __wrap__ZN8GPObjectC2Ev(GPObject* object) {
    ++testsupport::living;
    __real__ZN8GPObjectC2Ev(object);
}

void __wrap__ZN8GPObjectD2Ev(GPObject* object) {
    --testsupport::living;
    __real__ZN8GPObjectD2Ev(object);
}
