#include "support/ParentDeath.h"
#include "support/RefusingServices.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testsupport::endForksWithTheirParents();
    testsupport::installRefusingServices();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
