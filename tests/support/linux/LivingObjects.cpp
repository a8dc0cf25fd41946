#include "support/LivingObjects.h"

#include <atomic>

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

} // namespace testsupport

void __wrap__ZN8GPObjectC2Ev(GPObject* object) {
    ++testsupport::living;
    __real__ZN8GPObjectC2Ev(object);
}

void __wrap__ZN8GPObjectD2Ev(GPObject* object) {
    --testsupport::living;
    __real__ZN8GPObjectD2Ev(object);
}
