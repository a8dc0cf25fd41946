// An answer that arrives in many pieces.

#include "gp/GPHTTP.h"
#include "steps/StepCounter.h"
#include "support/AllocationCounter.h"
#include "support/AnswerServer.h"
#include "support/HTTPRequestWorld.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <string>

namespace {

constexpr int pieceSize = 256;

class AnswerInPieces : public testsupport::HTTPRequestWorld {};

} // namespace

// Stands in front of the C library's own: never tells of more than a piece that can be read, and so much is read.
extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const long result = syscall(SYS_ioctl, descriptor, request, argument);
    if (request == FIONREAD && result == 0) {
        auto& waiting = *static_cast<int*>(argument);
        waiting = std::min(waiting, pieceSize);
    }
    return static_cast<int>(result);
}

TEST_F(AnswerInPieces, IsGatheredWithStepsAndMemoryInProportionToIt) {
    const long size = 1 << 17;
    testsupport::AnswerServer server({std::string(size, 'x')});
    GPHTTP request(server.url("/").c_str());

    const testsupport::AllocationCounter memory;
    const testsupport::StepCounter steps;
    request.startSync();

    EXPECT_EQ(request.responseLength(), size);
    EXPECT_GE(memory.count(), size / pieceSize) << "a buffer for each piece";
    EXPECT_LE(memory.bytes(), 30 * size);
    EXPECT_LE(steps.count(), 30 * size);
}
