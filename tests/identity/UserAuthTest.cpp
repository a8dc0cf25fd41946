// What the machine's directory says of the user.

#include "identity/UserAuth.h"

#include "gp/GPArray.h"
#include "gp/GPAutoReleasePool.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"
#include "support/IdentityWorld.h"
#include "support/Objects.h"

#include <filesystem>

using platform::HostPaths;

namespace {

constexpr const char* netLogon = "AuthenticationAuthority: ;Kerberosv5;;alice@X;X; ;NetLogon;alice;CORP\n";
constexpr const char* noNetLogon = "AuthenticationAuthority: ;ShadowHash;HASHLIST:<SALTED-SHA512>\n";
constexpr const char* likewiseStatus = "LSA Server Status:\n  [Domain: CORP]\n";
constexpr const char* adinfoOutput = "Domain:\nNTLM NAME   = CORP\n";

class UserAuthTest : public testsupport::IdentityWorld {
protected:
    // The name that is known after asking for the user.
    static std::string queried(const char* user = "alice") {
        queryUserName(user);
        return known();
    }

    static std::string known() {
        const char* name = UserAuth::userName();
        return name ? name : "(null)";
    }

    // The list's strings; "(null)" for null. Releases nothing.
    static Calls texts(GPArray* list) {
        if (!list) return {"(null)"};
        Calls result;
        for (int i = 0; i < list->count(); ++i)
            result.emplace_back(static_cast<GPString*>(list->objectAtIndex(i))->cstr());
        return result;
    }

    static Calls groups() {
        const auto list = Owned<GPArray>::adopt(UserAuth::userGroups());
        return texts(list.get());
    }

    static Calls netbiosNames(const Calls& groups) {
        const auto list = Owned<GPArray>::adopt(new GPArray);
        for (const std::string& group : groups)
            list->addObject(Owned<GPString>::adopt(new GPString(group.c_str())).get());
        return texts(UserAuth::netbiosNames(list.get()));
    }

    // What the run of `body` prints.
    template <class Body>
    static std::string printedBy(Body body) {
        testing::internal::CaptureStdout();
        body();
        return testing::internal::GetCapturedStdout();
    }

    GPAutoReleasePool* pool = new GPAutoReleasePool;

    ~UserAuthTest() override { pool->drain(); }
};

// Without a directory.

TEST_F(UserAuthTest, WithoutADirectoryThePlainNameIsKnown) {
    EXPECT_EQ(queried(), "alice");
    EXPECT_EQ(tools.calls(), Calls{askDsconfigad});
}

TEST_F(UserAuthTest, WithoutADirectoryTheNextQueryLooksForOneAgain) {
    queried();
    tools.dsconfigadPrints("Active Directory Domain = corp.example.com\n");
    tools.dsclPrints("AuthenticationAuthority", netLogon);
    EXPECT_EQ(queried(), "CORP\\alice");
}

TEST_F(UserAuthTest, TheDirectoryIsFoundOnceAndKept) {
    tools.dsconfigadPrints("bound");
    queried();
    tools.dsconfigadPrints("");
    tools.dsclPrints("AuthenticationAuthority", netLogon);
    EXPECT_EQ(queried("bob"), "CORP\\bob");
    EXPECT_EQ(tools.calls(), (Calls{askDsconfigad, "dscl /Search -read /Users/alice AuthenticationAuthority",
                                    "dscl /Search -read /Users/bob AuthenticationAuthority"}));
}

// The search for the directory.

TEST_F(UserAuthTest, WithAUserElementInTheOverrideFileDsconfigadIsNotRunAtAll) {
    tools.dsconfigadPrints("bound");
    tools.writeOverride("<Ldap>\n<User>admin</User>\n<Base>dc=x</Base>\n</Ldap>\n");
    EXPECT_EQ(queried(), "uid=alice,dc=x");
    EXPECT_EQ(tools.calls(), Calls{});
}

TEST_F(UserAuthTest, WithAnOverrideFileWithoutAUserElementButABindingTheTypeIsActiveDirectory) {
    tools.dsconfigadPrints("bound");
    tools.writeOverride("<Ldap>\n<Base>dc=x</Base>\n</Ldap>\n");
    tools.dsclPrints("AuthenticationAuthority", netLogon);
    EXPECT_EQ(queried(), "CORP\\alice");
}

TEST_F(UserAuthTest, AUserElementWithoutTextDoesNotSelectTheNamedUser) {
    tools.writeOverride("<Ldap><User></User><Base>dc=x</Base></Ldap>");
    EXPECT_EQ(queried(), "uid=alice,dc=x");
    EXPECT_EQ(tools.calls(), Calls{askDsconfigad});
}

TEST_F(UserAuthTest, AnOverrideFileThatDoesNotParseGoesOnToDsconfigad) {
    tools.writeOverride("no markup at all");
    tools.dsconfigadPrints("bound");
    tools.dsclPrints("AuthenticationAuthority", netLogon);
    EXPECT_EQ(queried(), "CORP\\alice");
}

TEST_F(UserAuthTest, AnOverrideFileThatDoesNotParseStillMakesTheTypeLdap) {
    tools.writeOverride("no markup at all");
    tools.likewisePrints(likewiseStatus);
    tools.dsclPrints("distinguishedName", "distinguishedName: uid=alice,dc=y\n");
    EXPECT_EQ(queried(), "uid=alice,dc=y");
}

TEST_F(UserAuthTest, TheLdapConfigurationsComeBeforeLikewise) {
    tools.configureLdap({});
    tools.likewisePrints(likewiseStatus);
    tools.dsclPrints("distinguishedName", "distinguishedName: uid=alice,dc=y\n");
    EXPECT_EQ(queried(), "uid=alice,dc=y");
    EXPECT_EQ(tools.calls(), (Calls{askDsconfigad, "dscl /Search -read /Users/alice distinguishedName"}));
}

TEST_F(UserAuthTest, LikewiseComesBeforeAdinfo) {
    tools.likewisePrints("Status\n[Domain: LIKEWISE]\n");
    tools.adinfoPrints(adinfoOutput);
    EXPECT_EQ(queried(), "LIKEWISE\\alice");
}

// Active Directory through the system's own plug-in.

TEST_F(UserAuthTest, ActiveDirectoryGivesTheDomainOfTheNetLogonEntry) {
    tools.dsconfigadPrints("bound");
    tools.dsclPrints("AuthenticationAuthority", netLogon);
    EXPECT_EQ(queried(), "CORP\\alice");
    EXPECT_EQ(netbiosNames({"CN=Staff,OU=Groups,DC=x"}), Calls{"CORP\\Staff"});
}

TEST_F(UserAuthTest, OnActiveDirectoryAUserWithNoNetLogonEntryGetsNoDomainAndKeepsThePlainName) {
    tools.dsconfigadPrints("bound");
    tools.dsclPrints("AuthenticationAuthority", noNetLogon);
    EXPECT_EQ(queried(), "alice");
    EXPECT_EQ(netbiosNames({"CN=Staff,OU=Groups"}), Calls{"(null)"});
}

TEST_F(UserAuthTest, OnActiveDirectoryAUserNameWithABlankIsOneWord) {
    tools.dsconfigadPrints("bound");
    tools.dsclPrints("AuthenticationAuthority", netLogon);
    EXPECT_EQ(queried("alice smith"), "CORP\\alice smith");
}

TEST_F(UserAuthTest, ADsconfigadThatIsMissingCountsAsOneThatPrintsSomething) {
    tools.removeDsconfigad();
    tools.likewisePrints(likewiseStatus);
    EXPECT_EQ(queried(), "alice");
    EXPECT_EQ(tools.calls(), Calls{"dscl /Search -read /Users/alice AuthenticationAuthority"});
}

// Likewise and adinfo.

TEST_F(UserAuthTest, LikewiseGivesTheDomainOfItsStatus) {
    tools.likewisePrints(likewiseStatus);
    EXPECT_EQ(queried(), "CORP\\alice");
    EXPECT_EQ(tools.calls(), (Calls{askDsconfigad, "lw-get-status "}));
    EXPECT_EQ(netbiosNames({"CN=Staff,DC=x"}), Calls{"CORP\\Staff"});
}

TEST_F(UserAuthTest, AdinfoGivesTheDomainOfItsNtlmLine) {
    tools.adinfoPrints(adinfoOutput);
    EXPECT_EQ(queried(), "CORP\\alice");
    EXPECT_EQ(tools.calls(), (Calls{askDsconfigad, "adinfo -y domain"}));
    EXPECT_EQ(netbiosNames({"CN=Staff,DC=x"}), Calls{"CORP\\Staff"});
}

// LDAP.

TEST_F(UserAuthTest, TheBaseOfTheOverrideFileMakesTheNameWithoutATool) {
    tools.writeOverride("<Ldap>\n<Base>ou=people,dc=x</Base>\n</Ldap>\n");
    EXPECT_EQ(printedBy([] { EXPECT_EQ(queried(), "uid=alice,ou=people,dc=x"); }), "");
    EXPECT_EQ(tools.calls(), Calls{askDsconfigad});
}

TEST_F(UserAuthTest, AnOverrideFileWithoutABaseAsksForTheDistinguishedName) {
    tools.writeOverride("<Ldap>\n<Base></Base>\n</Ldap>\n");
    tools.dsclPrints("distinguishedName", "distinguishedName: uid=alice,dc=y\n");
    EXPECT_EQ(printedBy([] { EXPECT_EQ(queried(), "uid=alice,dc=y"); }), "find is: 17\n");
}

TEST_F(UserAuthTest, ADistinguishedNameThatItselfHoldsAColonIsNotFound) {
    tools.configureLdap();
    tools.dsclPrints("distinguishedName", "dsAttrTypeNative:distinguishedName: CN=a:b,DC=x\n");
    EXPECT_EQ(printedBy([] { EXPECT_EQ(queried(), "alice"); }), "find is: -1\n");
}

TEST_F(UserAuthTest, ANamedUserWithoutABaseKeepsThePlainNameAndRunsNoTool) {
    tools.writeOverride("<Ldap><User>admin</User></Ldap>");
    tools.dsclPrints("distinguishedName", "distinguishedName: uid=alice,dc=y\n");
    EXPECT_EQ(queried(), "alice");
    EXPECT_EQ(tools.calls(), Calls{});
}

TEST_F(UserAuthTest, TheNameOfTheOverrideFileIsAutoreleased) {
    tools.writeOverride("<Ldap><Base>dc=x</Base></Ldap>");
    auto* inner = new GPAutoReleasePool;
    GPString* name = configName("bob");
    EXPECT_STREQ(name->cstr(), "uid=bob,dc=x");
    const auto held = Owned<GPString>::retain(name);
    inner->drain();
    EXPECT_EQ(testsupport::references(name), 1);
}

TEST_F(UserAuthTest, NoOverrideFileGivesNoName) { EXPECT_EQ(configName("bob"), nullptr); }

// The known names.

TEST_F(UserAuthTest, AFailureLeavesTheQualifiedNameAsItWasAndStillRecordsThePlainOne) {
    tools.dsconfigadPrints("bound");
    tools.dsclPrints("AuthenticationAuthority", netLogon);
    queried();
    tools.dsclPrints("AuthenticationAuthority", noNetLogon);
    EXPECT_EQ(queried("bob"), "CORP\\alice");
    UserAuth::setFullName(nullptr);
    EXPECT_EQ(known(), "bob");
}

TEST_F(UserAuthTest, WithNobodyAtTheConsoleThereIsNoName) {
    EXPECT_EQ(known(), "(null)");
    EXPECT_EQ(groups(), Calls{"(null)"});
}

TEST_F(UserAuthTest, TheFirstQuestionForTheNameLooksAtTheConsole) {
    tools.adinfoPrints(adinfoOutput);
    console.seat("alice");
    EXPECT_EQ(known(), "CORP\\alice");
    EXPECT_EQ(known(), "CORP\\alice");
    EXPECT_EQ(console.asked(), 1);
}

TEST_F(UserAuthTest, AnEmptyNameIsNone) {
    EXPECT_EQ(queried(""), "(null)");
    EXPECT_EQ(groups(), Calls{"(null)"});
}

TEST_F(UserAuthTest, AFullNameThatIsSetIsTheUsersName) {
    queried();
    UserAuth::setFullName("OTHER\\alice");
    EXPECT_EQ(known(), "OTHER\\alice");
    UserAuth::setFullName("NEW\\alice");
    EXPECT_EQ(known(), "NEW\\alice");
}

TEST_F(UserAuthTest, ADirectoryForLdapThatIsAFileIsNone) {
    testsupport::writeAll(HostPaths::ldapConfigurations(), "a file");
    tools.likewisePrints(likewiseStatus);
    EXPECT_EQ(queried(), "CORP\\alice");
}

TEST_F(UserAuthTest, TheDomainOfTheLastUserStandsUntilAnotherIsKnown) {
    setCachedDomain("OLD");
    EXPECT_EQ(netbiosNames({"CN=Staff,DC=x"}), Calls{"OLD\\Staff"});
    queried("bob");
    EXPECT_EQ(netbiosNames({"CN=Staff,DC=x"}), Calls{"OLD\\Staff"});
    tools.adinfoPrints(adinfoOutput);
    queried("carol");
    EXPECT_EQ(netbiosNames({"CN=Staff,DC=x"}), Calls{"CORP\\Staff"});
}

// Groups.

TEST_F(UserAuthTest, TheFirstQuestionForGroupsLooksAtTheConsole) {
    tools.dsconfigadPrints("bound");
    tools.dsclPrints("AuthenticationAuthority", netLogon);
    tools.dsclPrints("memberOf", "dsAttrTypeNative:memberOf: CN=Staff,DC=x\n");
    console.seat("alice");
    EXPECT_EQ(groups(), Calls{"CN=Staff,DC=x"});
    EXPECT_EQ(console.asked(), 1);
    EXPECT_EQ(known(), "CORP\\alice");
}

TEST_F(UserAuthTest, WithANamedUserInTheOverrideFileNoToolIsAskedForGroups) {
    tools.writeOverride("<Ldap><User>admin</User><Base>dc=x</Base></Ldap>");
    tools.dsclPrints("memberOf", "dsAttrTypeNative:memberOf: cn=staff\n");
    tools.dsclPrints("groupMembership", "dsAttrTypeNative:groupMembership: cn=staff\n");
    queried();
    EXPECT_EQ(groups(), Calls{"(null)"});
    EXPECT_EQ(tools.calls(), Calls{});
}

TEST_F(UserAuthTest, GroupsComeFromTheMembershipAttribute) {
    tools.dsconfigadPrints("bound");
    queried();
    tools.dsclPrints("memberOf", "dsAttrTypeNative:memberOf:\n CN=Staff,DC=x\n CN=Sales,DC=x\n");
    EXPECT_EQ(groups(), (Calls{"CN=Staff,DC=x", "CN=Sales,DC=x"}));
    EXPECT_EQ(tools.calls().back(), "dscl /Search -read /Users/alice memberOf");
}

TEST_F(UserAuthTest, GroupsComeFromTheSecondAttributeWhenTheFirstHasNone) {
    tools.configureLdap();
    queried();
    tools.dsclPrints("memberOf", "No such key: memberO\n");
    tools.dsclPrints("groupMembership", "dsAttrTypeNative:groupMembership: cn=staff\n");
    EXPECT_EQ(groups(), Calls{"cn=staff"});
    EXPECT_EQ(tools.calls().back(), "dscl /Search -read /Users/alice groupMembership");
}

TEST_F(UserAuthTest, OtherDirectoriesGiveNoGroupsAndRunNoTool) {
    tools.likewisePrints(likewiseStatus);
    tools.dsclPrints("memberOf", "dsAttrTypeNative:memberOf: cn=staff\n");
    queried();
    EXPECT_EQ(groups(), Calls{"(null)"});
    EXPECT_EQ(tools.calls().size(), 2u);
}

TEST_F(UserAuthTest, TheOverrideFilesServerGivesNoGroups) {
    tools.writeOverride("<Ldap><User>admin</User><Query>q</Query><Server>ldap.x</Server></Ldap>");
    queried();
    EXPECT_EQ(groups(), Calls{"(null)"});
}

TEST_F(UserAuthTest, TheLdapConfigurationsHaveNoEffectOnTheGroups) {
    tools.configureLdap({"ldap.example.org.plist", "second"});
    queried();
    EXPECT_EQ(printedBy([] { EXPECT_EQ(groups(), Calls{"(null)"}); }), "");
}

TEST_F(UserAuthTest, AnEmptyFolderOfLdapConfigurationsHasNoEffectEither) {
    tools.configureLdap();
    tools.writeOverride("<Ldap><User>admin</User></Ldap>");
    queried();
    EXPECT_EQ(printedBy([] { EXPECT_EQ(groups(), Calls{"(null)"}); }), "");
}

TEST_F(UserAuthTest, GroupNamesAreTheFirstWordsBehindTheDomain) {
    setCachedDomain("CORP");
    EXPECT_EQ(netbiosNames({"CN=Staff,OU=Groups,DC=x", "cn=All Hands,dc=y"}),
              (Calls{"CORP\\Staff", "CORP\\All Hands"}));
}

TEST_F(UserAuthTest, AGroupNameBeginsBehindTheFirstSign) {
    setCachedDomain("CORP");
    EXPECT_EQ(netbiosNames({"CN=All=Staff,DC=x"}), Calls{"CORP\\All=Staff"});
}

TEST_F(UserAuthTest, GroupsWithoutACommaOrASignAreDropped) {
    setCachedDomain("CORP");
    EXPECT_EQ(netbiosNames({"CN=Staff", "Staff,DC=x", ",CN=Staff", "=Staff,DC=x", "", "CN=,x"}),
              Calls{"CORP\\"});
}

TEST_F(UserAuthTest, GroupNamesLeaveTheGroupsAsTheyAre) {
    setCachedDomain("CORP");
    const auto list = Owned<GPArray>::adopt(new GPArray);
    const auto group = Owned<GPString>::adopt(new GPString("CN=Staff,DC=x"));
    list->addObject(group.get());
    UserAuth::netbiosNames(list.get());
    EXPECT_STREQ(group->cstr(), "CN=Staff,DC=x");
}

TEST_F(UserAuthTest, WithoutADomainThereAreNoGroupNames) {
    EXPECT_EQ(netbiosNames({"CN=Staff,DC=x"}), Calls{"(null)"});
    setCachedDomain("CORP");
    setCachedDomain(nullptr);
    EXPECT_EQ(netbiosNames({"CN=Staff,DC=x"}), Calls{"(null)"});
}

TEST_F(UserAuthTest, NoGroupsGiveNoGroupNames) {
    setCachedDomain("CORP");
    EXPECT_EQ(texts(UserAuth::netbiosNames(nullptr)), Calls{});
}

// The override file.

TEST_F(UserAuthTest, TheOverrideFileIsWrittenWithItsBase) {
    EXPECT_TRUE(UserAuth::createLdapConfFile("ou=people,dc=x"));
    EXPECT_EQ(testsupport::readAll(HostPaths::ldapFile()), "<Ldap>\n<Base>ou=people,dc=x</Base>\n</Ldap>\n");
    EXPECT_STREQ(UserAuth::printLDAPConfig(), "<Ldap>\n<Base>ou=people,dc=x</Base>\n</Ldap>\n");
}

TEST_F(UserAuthTest, TheOverrideFileIsReplaced) {
    tools.writeOverride("<Ldap><User>a user with a long name, to be gone</User></Ldap>");
    EXPECT_TRUE(UserAuth::createLdapConfFile("dc=x"));
    EXPECT_EQ(testsupport::readAll(HostPaths::ldapFile()), "<Ldap>\n<Base>dc=x</Base>\n</Ldap>\n");
}

TEST_F(UserAuthTest, TheSettingsFolderIsMadeForTheOverrideFile) {
    std::filesystem::remove_all(HostPaths::settingsDirectory());
    std::filesystem::create_directories(std::filesystem::path(HostPaths::settingsDirectory()).parent_path());
    EXPECT_TRUE(UserAuth::createLdapConfFile("dc=x"));
    EXPECT_TRUE(std::filesystem::exists(HostPaths::ldapFile()));
}

TEST_F(UserAuthTest, AnOverrideFileThatCannotBeWrittenIsAFailure) {
    std::filesystem::create_directories(HostPaths::ldapFile());
    EXPECT_FALSE(UserAuth::createLdapConfFile("dc=x"));
}

TEST_F(UserAuthTest, WithoutAnOverrideFileItsTextIsEmpty) { EXPECT_STREQ(UserAuth::printLDAPConfig(), ""); }

} // namespace
