// The tool's commands as far as they stay within the user's own home.

#include "security/Commands.h"
#include "Security/Keychain/KeychainAccess.h"
#include "Security/Keychain/Store.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/RecordingAuthorization.h"
#include "Tests/Support/ScratchHome.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using kf::test::Authority;
using kf::test::mustRun;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

/// No rights: nothing outside the scratch home can be touched.
class CommandsTest : public ::testing::Test {
protected:
    ~CommandsTest() override { kf::keychain::closeAll(); }

    int run(const std::vector<std::string>& words)
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = kf::security::run(words);
        output_ = testing::internal::GetCapturedStdout();
        errors_ = testing::internal::GetCapturedStderr();
        return status;
    }
    std::string list(const fs::path& keychain) const
    {
        return mustRun({"timeout", "20", "certutil", "-L", "-d", "sql:" + keychain.string()});
    }
    static Authority& authority()
    {
        static Authority authority;
        return authority;
    }

    kf::test::ScratchHome home_;
    kf::test::RecordingAuthorization authorization_;
    std::string output_;
    std::string errors_;
};

TEST_F(CommandsTest, HelpIsNoFailure)
{
    for (const char* word : {"-h", "--help", "help"}) {
        EXPECT_EQ(run({word}), 0);
        EXPECT_THAT(output_, HasSubstr("usage: security command"));
        for (const auto& command : kf::security::commands())
            EXPECT_THAT(output_, HasSubstr("security " + std::string(command.name)));
    }
    for (const auto& command : kf::security::commands()) {
        EXPECT_EQ(run({std::string(command.name), "-h"}), 0);
        EXPECT_THAT(output_, HasSubstr(std::string(command.help)));
        EXPECT_EQ(errors_, "");
    }
}

TEST_F(CommandsTest, WrongUseIsToldWithAStatusOfItsOwn)
{
    const std::vector<std::vector<std::string>> wrong = {{}, {"nonsense"}, {"add-trusted-cert"},
        {"add-trusted-cert", "a", "b"}, {"add-trusted-cert", "-x", "a"}, {"add-trusted-cert", "a", "-k"},
        {"add-trusted-cert", "-r", "trust", "a"}, {"add-trusted-cert", "-p", "ssl", "a"}, {"remove-trusted-cert"}, {"remove-trusted-cert", "-k", "K", "a"},
        {"trust-status", "a", "b"}, {"trust-status", "--jsonny"}, {"remove-trusted-cert", "--json", "a"}};
    for (const auto& words : wrong) {
        EXPECT_EQ(run(words), 2);
        EXPECT_THAT(errors_, HasSubstr("usage: security"));
        EXPECT_EQ(output_, "");
    }
    EXPECT_FALSE(fs::exists(home_.defaultKeychain()));
}

TEST_F(CommandsTest, TrustsAnAuthorityForTheUser)
{
    EXPECT_EQ(run({"add-trusted-cert", authority().rootFile()}), 0);
    EXPECT_EQ(output_, "default keychain: trusted\n");
    EXPECT_THAT(list(home_.defaultKeychain()), ContainsRegex("Orvane Certification Authority +C,C,"));
    EXPECT_EQ(run({"add-trusted-cert", "-r", "trustRoot", authority().rootFile()}), 0);
    EXPECT_EQ(output_, "default keychain: was trusted already\n");
}

TEST_F(CommandsTest, AddsToAnotherKeychainToo)
{
    const fs::path other = home_.path() / "other.keychain";
    EXPECT_EQ(run({"add-trusted-cert", "-k", other, authority().rootFile()}), 0);
    EXPECT_EQ(output_, "default keychain: trusted\n" + other.string() + ": certificate added\n");
    EXPECT_THAT(list(other), ContainsRegex("Orvane Certification Authority +,,"));
    EXPECT_EQ(run({"add-trusted-cert", "-k", other, authority().rootFile()}), 0);
    EXPECT_THAT(output_, HasSubstr("the certificate was there already"));
    EXPECT_EQ(run({"add-trusted-cert", "-k", home_.defaultKeychain(), authority().rootFile()}), 0);
    EXPECT_EQ(output_, "default keychain: was trusted already\n");
}

TEST_F(CommandsTest, TakesTheUsersTrustBack)
{
    ASSERT_EQ(run({"add-trusted-cert", authority().rootFile()}), 0);
    EXPECT_EQ(run({"remove-trusted-cert", authority().rootFile()}), 0);
    EXPECT_EQ(output_, "default keychain: no longer trusted\n");
    EXPECT_THAT(list(home_.defaultKeychain()), ContainsRegex("Orvane Certification Authority +,,"));
    EXPECT_EQ(run({"remove-trusted-cert", authority().rootFile()}), 0);
    EXPECT_EQ(output_, "default keychain: was not trusted\n");
}

TEST_F(CommandsTest, WithoutRightsNothingIsChangedForEverybody)
{
    for (const char* command : {"add-trusted-cert", "remove-trusted-cert"}) {
        EXPECT_EQ(run({command, "-d", authority().rootFile()}), 1);
        EXPECT_EQ(output_, "");
        EXPECT_EQ(errors_,
            "security: System keychain: The Security Server denied authorization for one or more requested rights "
            "(-60005)\n");
    }
    EXPECT_EQ(run({"add-trusted-cert", "-k", "/Library/Keychains/System.keychain", authority().rootFile()}), 1);
    EXPECT_THAT(errors_, HasSubstr("/Library/Keychains/System.keychain: The Security Server denied"));
    EXPECT_FALSE(fs::exists(home_.defaultKeychain())) << "that was known before the first write";
}

TEST_F(CommandsTest, AKeychainThatWillNotTakeItIsFoundBeforeTheFirstWrite)
{
    const fs::path file = home_.path() / "file";
    kf::test::writeFile(file, std::string_view("no directory"));
    const fs::path damaged = home_.path() / "damaged.keychain";
    fs::create_directory(damaged);
    for (const char* name : {"cert9.db", "key4.db"})
        kf::test::writeFile(damaged / name, std::string_view("no database"));
    const fs::path half = home_.path() / "half.keychain";
    fs::create_directory(half);
    fs::copy_file(damaged / "cert9.db", half / "cert9.db");
    for (const fs::path& keychain : {file, file / "below", damaged, half}) {
        EXPECT_EQ(run({"add-trusted-cert", "-k", keychain, authority().rootFile()}), 1) << keychain;
        EXPECT_THAT(errors_, HasSubstr(keychain.string() + ": "));
        EXPECT_EQ(output_, "");
        EXPECT_FALSE(fs::exists(home_.defaultKeychain())) << keychain;
    }
}

TEST_F(CommandsTest, APathOfSeveralLinesIsToldOnOne)
{
    const fs::path strange = home_.path() / "a\nSystem keychain: trusted\x1b[2J";
    EXPECT_EQ(run({"add-trusted-cert", strange}), 1);
    EXPECT_THAT(errors_, HasSubstr("a\\x0aSystem keychain: trusted\\x1b[2J: No such file or directory"));
    EXPECT_EQ(std::ranges::count(errors_, '\n'), 1);
    fs::copy_file(authority().rootFile(), strange);
    EXPECT_EQ(run({"add-trusted-cert", "-k", strange.string() + ".keychain", strange}), 0);
    EXPECT_EQ(std::ranges::count(output_, '\n'), 2) << output_;
}

TEST_F(CommandsTest, TrustStatusNamesEveryPlaceAndChangesNothing)
{
    ASSERT_EQ(run({"trust-status"}), 0) << errors_;
    const std::vector<std::string> places = {"System keychain", "distribution's trust store", "Chromium",
        "Chromium of Ubuntu", "Chrome", "Edge", "Brave", "Firefox"};
    for (const std::string& place : places)
        EXPECT_THAT(output_, ContainsRegex("(^|\n)" + place + ": "));
    ASSERT_EQ(run({"trust-status", "--json"}), 0);
    std::vector<std::string> named;
    const auto answer = nlohmann::json::parse(output_);
    for (const auto& place : answer["places"])
        named.push_back(place["place"]);
    EXPECT_EQ(named, places);
    EXPECT_TRUE(fs::is_empty(home_.path()));
}

TEST_F(CommandsTest, TrustStatusTellsWhereOneCertificateStands)
{
    ASSERT_EQ(run({"trust-status", authority().rootFile()}), 0);
    EXPECT_THAT(output_, HasSubstr("System keychain: not there\n"));
    ASSERT_EQ(run({"trust-status", "--json", authority().rootFile()}), 0);
    EXPECT_EQ(nlohmann::json::parse(output_)["places"][0]["published"], false);
    EXPECT_EQ(run({"trust-status", authority().directory() / "missing"}), 1);
}

TEST_F(CommandsTest, RefusesWhatMustNotBeTrusted)
{
    EXPECT_EQ(run({"add-trusted-cert", authority().issuerFile()}), 1);
    EXPECT_EQ(errors_,
        "security: " + authority().issuerFile().string() + ": is not a root certificate: it did not sign itself\n");
    EXPECT_EQ(run({"add-trusted-cert", authority().directory() / "missing"}), 1);
    EXPECT_THAT(errors_, HasSubstr("No such file or directory"));
    EXPECT_FALSE(fs::exists(home_.defaultKeychain()));
}

} // namespace
