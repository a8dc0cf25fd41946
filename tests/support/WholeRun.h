#pragma once

// Tests that come to their own end. A process that ends in the middle of one with status 0, because the code under test
// calls exit, would otherwise count as one whose tests pass.

namespace testsupport {

// While it lives, an exit of this process has status 1 and is told of. Its children end as they like. One at a time.
class WholeRun {
public:
    WholeRun();
    ~WholeRun();

    WholeRun(const WholeRun&) = delete;
    WholeRun& operator=(const WholeRun&) = delete;
};

} // namespace testsupport
