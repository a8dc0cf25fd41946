// What the questions for users and groups leave behind: nothing but what is kept on purpose.

#include "gp/GPArray.h"
#include "gp/GPAutoReleasePool.h"
#include "gp/Owned.h"
#include "identity/UserAuth.h"
#include "support/IdentityWorld.h"
#include "support/LivingObjects.h"

namespace {

constexpr const char* netLogon = "AuthenticationAuthority: ;Kerberosv5;;alice@X;X; ;NetLogon;alice;CORP\n";
constexpr const char* likewiseStatus = "LSA Server Status:\n  [Domain: CORP]\n";

class UserAuthOwnership : public testsupport::IdentityWorld {};

TEST_F(UserAuthOwnership, NoQuestionLeavesAnObject) {
    using testsupport::objectsLeftBy;
    const auto asked = [] {
        return objectsLeftBy([] {
            queryUserName("alice");
            Owned<GPArray>::adopt(UserAuth::userGroups());
            GPAutoReleasePool* inner = new GPAutoReleasePool;
            UserAuth::netbiosNames(nullptr);
            inner->drain();
        });
    };
    EXPECT_EQ(asked(), 0);
    tools.likewisePrints(likewiseStatus);
    EXPECT_EQ(asked(), 0);
}

TEST_F(UserAuthOwnership, NoQuestionOfActiveDirectoryLeavesAnObject) {
    tools.dsconfigadPrints("bound");
    tools.dsclPrints("AuthenticationAuthority", netLogon);
    tools.dsclPrints("memberOf", "dsAttrTypeNative:memberOf:\n CN=Staff,DC=x\n CN=Sales,DC=x\n");
    EXPECT_EQ(testsupport::objectsLeftBy([] {
                  auto* inner = new GPAutoReleasePool;
                  queryUserName("alice");
                  const auto list = Owned<GPArray>::adopt(UserAuth::userGroups());
                  UserAuth::netbiosNames(list.get());
                  inner->drain();
              }),
              0);
}

TEST_F(UserAuthOwnership, NoUseOfTheOverrideFileLeavesAnObject) {
    EXPECT_EQ(testsupport::objectsLeftBy([] {
                  auto* inner = new GPAutoReleasePool;
                  UserAuth::createLdapConfFile("dc=x");
                  UserAuth::printLDAPConfig();
                  queryUserName("alice");
                  Owned<GPArray>::adopt(UserAuth::userGroups());
                  inner->drain();
              }),
              0);
}

TEST_F(UserAuthOwnership, AnLdapLookUpLeavesTheOneEntryOfTheFolderAlone) {
    tools.configureLdap({"ldap.example.org.plist"});
    tools.dsclPrints("distinguishedName", "distinguishedName: uid=alice,dc=y\n");
    EXPECT_EQ(testsupport::objectsLeftBy([] {
                  auto* inner = new GPAutoReleasePool;
                  queryUserName("alice");
                  Owned<GPArray>::adopt(UserAuth::userGroups());
                  inner->drain();
              }),
              3)
        << "entries of folders keep the reference of their creation, with two texts each";
}

} // namespace
