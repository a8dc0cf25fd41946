#include "platform/linux/HardwareUuid.h"

#include "platform/HardwareRegistry.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class HardwareUuidTest : public testing::Test {
protected:
    std::string read() {
        return platform::hardwareUuid(folder.file("product").c_str(), folder.file("machine").c_str());
    }
    void product(const std::string& text) { testsupport::writeAll(folder.file("product"), text); }
    void machine(const std::string& text) { testsupport::writeAll(folder.file("machine"), text); }

    testsupport::TemporaryFolder folder;
};

} // namespace

TEST_F(HardwareUuidTest, TheProductUuidIsWrittenInUpperCase) {
    product("11111111-2222-3333-4444-55555555abcd\n");
    machine("0123456789abcdef0123456789abcdef\n");
    EXPECT_EQ(read(), "11111111-2222-3333-4444-55555555ABCD");
}

TEST_F(HardwareUuidTest, WithoutAProductUuidTheMachineIdentifierGetsItsForm) {
    machine("0123456789abcdef0123456789abcdef\n");
    EXPECT_EQ(read(), "01234567-89AB-CDEF-0123-456789ABCDEF");
}

TEST_F(HardwareUuidTest, APlaceholderOfTheFirmwareCountsAsNone) {
    machine("0123456789abcdef0123456789abcdef");
    for (const char* text : {"00000000-0000-0000-0000-000000000000", "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF",
                             "Not Settable", "", "1234"}) {
        product(text);
        EXPECT_EQ(read(), "01234567-89AB-CDEF-0123-456789ABCDEF") << text;
    }
}

TEST_F(HardwareUuidTest, WithNeitherFileTheUuidIsEmpty) { EXPECT_EQ(read(), ""); }

TEST_F(HardwareUuidTest, TheBackendGivesTheUsualFormOrNothing) {
    const std::string uuid = platform::hardwareRegistryService.backend().platformUUID();
    EXPECT_TRUE(uuid.empty() || uuid.size() == 36) << uuid;
}
