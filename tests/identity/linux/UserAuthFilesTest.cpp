// The files that questions for users and groups look at.

#include "gp/GPArray.h"
#include "gp/Owned.h"
#include "identity/UserAuth.h"
#include "support/FileCalls.h"
#include "support/IdentityWorld.h"

namespace {

class UserAuthFiles : public testsupport::IdentityWorld {};

TEST_F(UserAuthFiles, WithoutAUserNoFileIsLookedAtForGroups) {
    const testsupport::FileCalls files;
    EXPECT_FALSE(Owned<GPArray>::adopt(UserAuth::userGroups()));
    EXPECT_EQ(files.byPath(), 0);
}

} // namespace
