#include "identity/DirectoryOutput.h"

#include "gp/GPArray.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Reader = GPString* (*)(const GPString* output);

// What the reader makes of the output; "(none)" for null.
std::string read(Reader reader, const std::string& output) {
    const auto text = Owned<GPString>::adopt(new GPString(output.c_str()));
    const auto result = Owned<GPString>::adopt(reader(text.get()));
    return result ? result->cstr() : "(none)";
}

std::vector<std::string> groups(const std::string& output, const char* mark) {
    const auto text = Owned<GPString>::adopt(new GPString(output.c_str()));
    const auto found = Owned<GPArray>::adopt(groupsBehind(text.get(), mark));
    if (!found) return {"(none)"};
    std::vector<std::string> result;
    for (int i = 0; i < found->count(); ++i)
        result.emplace_back(static_cast<GPString*>(found->objectAtIndex(i))->cstr());
    return result;
}

const std::vector<std::string> none = {"(none)"};

} // namespace

TEST(DirectoryOutput, NoOutputGivesNothing) {
    EXPECT_EQ(netLogonDomain(nullptr), nullptr);
    EXPECT_EQ(likewiseDomain(nullptr), nullptr);
    EXPECT_EQ(adinfoDomain(nullptr), nullptr);
    EXPECT_EQ(groupsBehind(nullptr, "memberOf:"), nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(distinguishedName(nullptr), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(NetLogonDomain, IsWhatFollowsTheLastSemicolonOfItsLine) {
    EXPECT_EQ(read(netLogonDomain,
                   "AuthenticationAuthority: ;Kerberosv5;;alice@CORP.EXAMPLE.COM;CORP.EXAMPLE.COM;"
                   " ;NetLogon;alice;CORP\n"),
              "CORP");
    EXPECT_EQ(
        read(netLogonDomain, "AuthenticationAuthority:\n ;ShadowHash;\n ;NetLogon;CORP\nRealName: a;b\n"),
        "CORP");
}

TEST(NetLogonDomain, ReachesToTheEndOfAnOutputWithoutALineEnd) {
    EXPECT_EQ(read(netLogonDomain, "AuthenticationAuthority: ;NetLogon;alice;CORP"), "CORP");
}

TEST(NetLogonDomain, LosesTheWhiteSpaceBehindItAlone) {
    EXPECT_EQ(read(netLogonDomain, "AuthenticationAuthority: ;NetLogon; CORP \t\n"), " CORP");
}

TEST(NetLogonDomain, OfBlanksAloneIsEmpty) {
    EXPECT_EQ(read(netLogonDomain, "AuthenticationAuthority: ;NetLogon;  \n"), "");
}

TEST(NetLogonDomain, NeedsTheAttributesNameInFront) {
    EXPECT_EQ(read(netLogonDomain, " AuthenticationAuthority: ;NetLogon;CORP\n"), "(none)");
    EXPECT_EQ(read(netLogonDomain, "eDSRecordNotFound ;NetLogon;CORP\n"), "(none)");
}

TEST(NetLogonDomain, NeedsItsMark) {
    EXPECT_EQ(read(netLogonDomain, "AuthenticationAuthority: ;ShadowHash;CORP\n"), "(none)");
    EXPECT_EQ(read(netLogonDomain, "AuthenticationAuthority: ;netlogon;CORP\n"), "(none)");
    EXPECT_EQ(read(netLogonDomain, "Auth"), "(none)");
}

TEST(NetLogonDomain, MayBeEmpty) {
    EXPECT_EQ(read(netLogonDomain, "AuthenticationAuthority: ;NetLogon;\n"), "");
}

TEST(LikewiseDomain, StandsInItsBrackets) {
    EXPECT_EQ(read(likewiseDomain, "LSA Server Status:\n\n[Authentication provider: lsa]\n\n"
                                   "[Domain:  CORP ]\n  DNS Domain: corp.example.com\n[Domain: OTHER]\n"),
              "CORP");
}

TEST(LikewiseDomain, IsNotFoundAtTheVeryBeginning) {
    EXPECT_EQ(read(likewiseDomain, "[Domain: CORP]\n"), "(none)");
    EXPECT_EQ(read(likewiseDomain, "\n[Domain: CORP]\n"), "CORP");
}

TEST(LikewiseDomain, NeedsBothBrackets) {
    EXPECT_EQ(read(likewiseDomain, "Status\n[Domain: CORP\n"), "(none)");
    EXPECT_EQ(read(likewiseDomain, "Status\nDomain: CORP]\n"), "(none)");
    EXPECT_EQ(read(likewiseDomain, "Status\n[Domain:"), "(none)");
}

TEST(AdinfoDomain, OfALineWithSeveralBlanksIsTheWordBehindTheSign) {
    EXPECT_EQ(read(adinfoDomain, "DNS NAME    = corp.example.com\nNTLM NAME   = CORP\nMODE = native\n"),
              "CORP");
}

TEST(AdinfoDomain, SkipsTheWhiteSpaceBehindTheSignAndTrims) {
    EXPECT_EQ(read(adinfoDomain, "\nNTLM NAME =  \t CORP  \n"), "CORP");
}

TEST(AdinfoDomain, IsNotFoundAtTheVeryBeginning) {
    EXPECT_EQ(read(adinfoDomain, "NTLM NAME   = CORP\n"), "(none)");
}

TEST(AdinfoDomain, NeedsTheSignWithABlankAndTheLineEnd) {
    EXPECT_EQ(read(adinfoDomain, "x NTLM NAME   =CORP\n"), "(none)");
    EXPECT_EQ(read(adinfoDomain, "a = b\nNTLM NAME   : CORP\n"), "(none)");
    EXPECT_EQ(read(adinfoDomain, "x NTLM NAME   = CORP"), "(none)");
    EXPECT_EQ(read(adinfoDomain, "x NTLM NAME   = "), "(none)");
}

TEST(DistinguishedName, IsTheTextBehindTheMarkUpToTheLastLineEnd) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(read(distinguishedName, "dsAttrTypeNative:distinguishedName: uid=alice,dc=example\n"),
              "uid=alice,dc=example");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "find is: 34\n");
}

TEST(DistinguishedName, MayStandOnALineOfItsOwn) {
    EXPECT_EQ(read(distinguishedName, "distinguishedName:\n CN=Alice Smith,DC=x\n"), "CN=Alice Smith,DC=x");
}

TEST(DistinguishedName, ThatHoldsAColonIsNotFound) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(read(distinguishedName, "distinguishedName: CN=Smith: Alice,DC=x\n"), "(none)");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "find is: -1\n");
}

TEST(DistinguishedName, NeedsItsMarkAndALineEndBehindIt) {
    EXPECT_EQ(read(distinguishedName, "No such key: distinguishedNam\n"), "(none)");
    EXPECT_EQ(read(distinguishedName, "distinguishedName: uid=alice"), "(none)");
    EXPECT_EQ(read(distinguishedName, "distinguishedName:\n"), "(none)");
    EXPECT_EQ(read(distinguishedName, "distinguishedName:"), "(none)");
}

TEST(DirectoryGroups, AreTheTrimmedLinesBehindTheMark) {
    EXPECT_EQ(groups("dsAttrTypeNative:memberOf:\n CN=Staff,DC=x\n CN=All Hands,DC=x \n", "memberOf:"),
              (std::vector<std::string>{"CN=Staff,DC=x", "CN=All Hands,DC=x"}));
    EXPECT_EQ(groups("x groupMembership: CN=Staff", "groupMembership:"),
              std::vector<std::string>{"CN=Staff"});
}

TEST(DirectoryGroups, KeepAnEmptyLineBetweenTwo) {
    EXPECT_EQ(groups("x memberOf: a\n\nb\n", "memberOf:"), (std::vector<std::string>{"a", "", "b"}));
}

TEST(DirectoryGroups, AreAnEmptyListWithNothingBehindTheMark) {
    EXPECT_EQ(groups("x memberOf: \n", "memberOf:"), std::vector<std::string>{});
}

TEST(DirectoryGroups, AreNotFoundAtTheVeryBeginningOrWithoutTheMark) {
    EXPECT_EQ(groups("memberOf: CN=Staff\n", "memberOf:"), none);
    EXPECT_EQ(groups("No such key: member\n", "memberOf:"), none);
}
