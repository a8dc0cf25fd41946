#include "platform/SecureTransport.h"

#include <gtest/gtest.h>

using namespace platform;

TEST(SecureTransportWords, HaveTheValuesOfTheSystem) {
    EXPECT_EQ(noErr, 0);
    EXPECT_EQ(ioErr, -36);
    EXPECT_EQ(errSSLWouldBlock, -9803);
    EXPECT_EQ(errSSLClosedGraceful, -9805);
    EXPECT_EQ(errSSLClosedAbort, -9806);
    EXPECT_EQ(kSSLProtocolAll, 6);
}
