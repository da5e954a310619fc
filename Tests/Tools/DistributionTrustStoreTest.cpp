// The distribution's own update-ca-certificates, on directories of the test's own.

#include "security/DistributionTrustStore.h"
#include "Tests/Support/Fixtures.h"
#include "security/FileTools.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using kf::security::DistributionTrustStore;
using kf::security::layoutFor;
using kf::security::Outcome;
using kf::test::Authority;
using kf::test::writeFile;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

class DistributionTrustStoreTest : public ::testing::Test {
protected:
    DistributionTrustStoreTest()
    {
        std::string pattern = (fs::temp_directory_path() / "keyfold-store-XXXXXX").string();
        directory_ = ::mkdtemp(pattern.data());
        fs::create_directory(certificates());
        fs::create_directory(directory_ / "hooks");
        writeFile(directory_ / "conf", std::string_view("# none\n"));
        layout_.anchors = directory_ / "anchors";
        layout_.hashedDirectory = certificates();
        layout_.bundle = certificates() / "ca-certificates.crt";
        layout_.suffix = ".crt";
        layout_.command = {directory_ / "update"};
        layout_.lock = directory_ / "lock";
        layout_.patience = std::chrono::seconds(0);
        setCommand("exec /usr/sbin/update-ca-certificates --certsconf " + (directory_ / "conf").string()
            + " --localcertsdir " + layout_.anchors + " --etccertsdir " + layout_.hashedDirectory + " --hooksdir "
            + (directory_ / "hooks").string() + "\n");
    }
    ~DistributionTrustStoreTest() override { fs::remove_all(directory_); }

    void SetUp() override
    {
        if (::access("/usr/sbin/update-ca-certificates", X_OK) != 0)
            GTEST_SKIP() << "update-ca-certificates is not installed";
    }

    void setCommand(const std::string& script)
    {
        writeFile(layout_.command[0], "#!/bin/sh\necho run >> " + (directory_ / "runs").string() + "\n" + script);
        ::chmod(layout_.command[0].c_str(), 0755);
    }
    std::size_t runs() const { return fs::exists(directory_ / "runs") ? fs::file_size(directory_ / "runs") / 4 : 0; }
    DistributionTrustStore store() const { return DistributionTrustStore(layout_); }
    fs::path certificates() const { return directory_ / "certs"; }

    /// What openssl says with the hashed directory, and with the bundle, alone.
    bool isTrusted(const fs::path& pem) const
    {
        const bool byDirectory =
            kf::test::run({"openssl", "verify", "-no-CAfile", "-CApath", certificates(), pem}).status == 0;
        const bool byBundle = fs::exists(layout_.bundle) && fs::file_size(layout_.bundle) > 0
            && kf::test::run({"openssl", "verify", "-no-CApath", "-CAfile", layout_.bundle, pem}).status == 0;
        EXPECT_EQ(byDirectory, byBundle);
        return byDirectory && byBundle;
    }
    std::vector<std::string> contentOf(const fs::path& directory) const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(directory))
            names.push_back(entry.path().filename());
        return names;
    }

    static Authority& authority()
    {
        static Authority authority;
        return authority;
    }

    fs::path directory_;
    DistributionTrustStore::Layout layout_;
};

TEST_F(DistributionTrustStoreTest, AnAddedAuthorityIsTrusted)
{
    ASSERT_FALSE(isTrusted(authority().rootFile()));
    const Outcome added = store().add(authority().root());
    ASSERT_TRUE(added.succeeded()) << added.text;
    EXPECT_EQ(added.text, "installed (" + store().anchorPath(authority().root()) + ")");
    EXPECT_TRUE(isTrusted(authority().rootFile()));
    EXPECT_TRUE(isTrusted(authority().issuerFile()));
    struct stat status = {};
    ASSERT_EQ(::stat(store().anchorPath(authority().root()).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
    EXPECT_EQ(contentOf(layout_.anchors).size(), 1U) << "no temporary file stays";
}

TEST_F(DistributionTrustStoreTest, FileNameHoldsNameAndDigest)
{
    const std::string name = fs::path(store().anchorPath(authority().root())).filename();
    EXPECT_THAT(name, MatchesRegex("keyfold-orvane-certification-authority-[0-9a-f]+\\.crt"));
    const Authority odd("Other", "  \u00c9cole, *Root* (2024) \u2014 a name far too long for a file");
    EXPECT_THAT(std::string(fs::path(store().anchorPath(odd.root())).filename()),
        MatchesRegex("keyfold-cole-root-2024-a-name-far-too-long-for-a-[0-9a-f]+\\.crt"));
    EXPECT_NE(store().anchorPath(odd.root()), store().anchorPath(odd.issuer()));
}

TEST_F(DistributionTrustStoreTest, AddingAgainChangesNothing)
{
    ASSERT_TRUE(store().add(authority().root()).succeeded());
    const auto before = kf::test::readFile(layout_.bundle);
    const Outcome again = store().add(authority().root());
    EXPECT_TRUE(again.succeeded());
    EXPECT_THAT(again.text, StartsWith("was there already"));
    EXPECT_EQ(runs(), 1U);
    EXPECT_EQ(kf::test::readFile(layout_.bundle), before);
}

TEST_F(DistributionTrustStoreTest, RepairsAnAnchorThatWasChanged)
{
    ASSERT_TRUE(store().add(authority().root()).succeeded());
    writeFile(store().anchorPath(authority().root()), std::string_view("changed\n"));
    EXPECT_TRUE(store().add(authority().root()).succeeded());
    EXPECT_TRUE(isTrusted(authority().rootFile()));
}

TEST_F(DistributionTrustStoreTest, RemovingTakesOutExactlyOurEntries)
{
    const Authority other("Somebody", "Other Authority");
    fs::create_directory(layout_.anchors);
    fs::copy_file(other.rootFile(), fs::path(layout_.anchors) / "other.crt");
    ASSERT_TRUE(store().add(authority().root()).succeeded());
    ASSERT_EQ(contentOf(certificates()).size(), 5U) << "a link and a hash link each, and the bundle";
    const Outcome removed = store().remove(authority().root());
    EXPECT_TRUE(removed.succeeded()) << removed.text;
    EXPECT_THAT(removed.text, StartsWith("removed"));
    EXPECT_FALSE(isTrusted(authority().rootFile()));
    EXPECT_TRUE(isTrusted(other.rootFile()));
    EXPECT_EQ(contentOf(layout_.anchors).size(), 1U);
    EXPECT_EQ(contentOf(certificates()).size(), 3U) << "no dangling links";
}

TEST_F(DistributionTrustStoreTest, RemovingLeavesNamesakesReachable)
{
    std::vector<std::unique_ptr<Authority>> namesakes;
    for (int count = 0; count < 4; ++count) {
        namesakes.push_back(std::make_unique<Authority>());
        ASSERT_TRUE(store().add(namesakes.back()->root()).succeeded());
    }
    // The certificates below tell by key identifier which of the namesakes issued them.
    for (std::size_t removed = 0; removed < 3; ++removed) {
        const Outcome outcome = store().remove(namesakes[removed]->root());
        ASSERT_TRUE(outcome.succeeded()) << outcome.text;
        for (std::size_t index = 0; index < namesakes.size(); ++index)
            EXPECT_EQ(isTrusted(namesakes[index]->issuerFile()), index > removed)
                << "one name, one hash: no gap in the numbers";
    }
}

TEST_F(DistributionTrustStoreTest, RemovingWhatIsNotThereIsNoFailure)
{
    const Outcome removed = store().remove(authority().root());
    EXPECT_TRUE(removed.succeeded());
    EXPECT_EQ(removed.text, "was not there");
    EXPECT_EQ(runs(), 0U);
}

TEST_F(DistributionTrustStoreTest, RemovingFinishesWhatEndedEarly)
{
    const Authority other("Somebody", "Other Authority");
    fs::create_directory(layout_.anchors);
    fs::copy_file(other.rootFile(), fs::path(layout_.anchors) / "other.crt");
    ASSERT_TRUE(store().add(authority().root()).succeeded());
    // As after a kill between the deletion and the update.
    for (const auto& anchor : fs::directory_iterator(layout_.anchors)) {
        if (anchor.path().filename() != "other.crt")
            fs::remove(anchor.path());
    }
    const Outcome removed = store().remove(authority().root());
    EXPECT_TRUE(removed.succeeded()) << removed.text;
    EXPECT_THAT(removed.text, HasSubstr("removed"));
    EXPECT_FALSE(isTrusted(authority().rootFile()));
    EXPECT_EQ(store().remove(authority().root()).text, "was not there");
}

TEST_F(DistributionTrustStoreTest, RemovingAllTakesOutExactlyOurs)
{
    const Authority other("Somebody", "Other Authority");
    const Authority third("Somebody", "Third Authority");
    fs::create_directory(layout_.anchors);
    fs::copy_file(other.rootFile(), fs::path(layout_.anchors) / "other.crt");
    ASSERT_TRUE(store().add(authority().root()).succeeded());
    ASSERT_TRUE(store().add(third.root()).succeeded());
    const Outcome removed = store().removeAll();
    EXPECT_EQ(removed.kind, Outcome::Kind::done) << removed.text;
    EXPECT_FALSE(isTrusted(authority().rootFile()));
    EXPECT_FALSE(isTrusted(third.rootFile()));
    EXPECT_TRUE(isTrusted(other.rootFile()));
    EXPECT_EQ(contentOf(layout_.anchors).size(), 1U);
    EXPECT_EQ(contentOf(certificates()).size(), 3U) << "no dangling links";
    const auto before = runs();
    EXPECT_EQ(store().removeAll().kind, Outcome::Kind::unchanged);
    EXPECT_EQ(runs(), before);
}

TEST_F(DistributionTrustStoreTest, RemovingAllFinishesWhatEndedEarly)
{
    const Authority other("Somebody", "Other Authority");
    fs::create_directory(layout_.anchors);
    fs::copy_file(other.rootFile(), fs::path(layout_.anchors) / "other.crt");
    ASSERT_TRUE(store().add(authority().root()).succeeded());
    fs::remove(store().anchorPath(authority().root())); // as after a kill before the update
    EXPECT_EQ(store().removeAll().kind, Outcome::Kind::done);
    EXPECT_FALSE(isTrusted(authority().rootFile()));
    EXPECT_EQ(store().removeAll().kind, Outcome::Kind::unchanged);
}

TEST_F(DistributionTrustStoreTest, RemovingAllNeedsNoCommand)
{
    const Authority other("Somebody", "Other Authority");
    fs::create_directory(layout_.anchors);
    fs::copy_file(other.rootFile(), fs::path(layout_.anchors) / "other.crt");
    ASSERT_TRUE(store().add(authority().root()).succeeded());
    fs::remove(layout_.command[0]);
    const Outcome removed = store().removeAll();
    EXPECT_EQ(removed.kind, Outcome::Kind::done) << removed.text;
    EXPECT_FALSE(isTrusted(authority().rootFile()));
    EXPECT_TRUE(isTrusted(other.rootFile()));
}

TEST_F(DistributionTrustStoreTest, RemovingAllTellsOfAnotherSource)
{
    ASSERT_TRUE(store().add(authority().root()).succeeded());
    fs::copy_file(authority().rootFile(), fs::path(layout_.anchors) / "theirs.crt");
    const Outcome removed = store().removeAll();
    EXPECT_EQ(removed.kind, Outcome::Kind::failed);
    EXPECT_THAT(removed.text, HasSubstr("from another source"));
}

TEST_F(DistributionTrustStoreTest, RemovingTellsOfAnotherSource)
{
    ASSERT_TRUE(store().add(authority().root()).succeeded());
    fs::copy_file(authority().rootFile(), fs::path(layout_.anchors) / "theirs.crt");
    const Outcome removed = store().remove(authority().root());
    EXPECT_FALSE(removed.succeeded());
    EXPECT_THAT(removed.text, HasSubstr("from another source"));
    EXPECT_TRUE(fs::exists(fs::path(layout_.anchors) / "theirs.crt")) << "not ours to delete";
}

TEST_F(DistributionTrustStoreTest, AFailingCommandIsToldAndLeavesNoAnchor)
{
    setCommand("echo no space left; exit 3\n");
    const Outcome added = store().add(authority().root());
    EXPECT_FALSE(added.succeeded());
    EXPECT_EQ(added.text, layout_.command[0] + " failed (3): no space left\n");
    EXPECT_EQ(runs(), 1U);
    EXPECT_TRUE(contentOf(layout_.anchors).empty()) << "or it would be trusted at the next update after all";
}

TEST_F(DistributionTrustStoreTest, ACommandThatCannotBeStartedIsTold)
{
    layout_.command = {directory_ / "missing"};
    EXPECT_THAT(store().add(authority().root()).text, HasSubstr("could not be started"));
    EXPECT_TRUE(contentOf(layout_.anchors).empty());
}

TEST_F(DistributionTrustStoreTest, ACommandThatLeavesItOutIsFoundOut)
{
    setCommand("exit 0\n");
    const Outcome added = store().add(authority().root());
    EXPECT_FALSE(added.succeeded());
    EXPECT_THAT(added.text, HasSubstr("left the certificate out"));
}

TEST_F(DistributionTrustStoreTest, AFailingHookDoesNotMatterWhereTheStoreIsRight)
{
    const auto script = kf::test::readFile(layout_.command[0]);
    std::string text(script.begin(), script.end());
    text.replace(text.find("exec "), 5, "");
    writeFile(layout_.command[0], text + "exit 1\n");
    EXPECT_TRUE(store().add(authority().root()).succeeded());
    EXPECT_TRUE(isTrusted(authority().rootFile()));
}

TEST_F(DistributionTrustStoreTest, AnchorsDirectoryThatCannotBeWrittenIsTold)
{
    writeFile(layout_.anchors, std::string_view("a file"));
    const Outcome added = store().add(authority().root());
    EXPECT_FALSE(added.succeeded());
    EXPECT_THAT(added.text, HasSubstr("cannot write in " + layout_.anchors));
    EXPECT_EQ(runs(), 0U);
}

TEST_F(DistributionTrustStoreTest, StatusTellsWhatHasEffect)
{
    EXPECT_EQ(store().status().kind, kf::security::PlaceStatus::Kind::failed) << "there is no bundle yet";
    const Authority other("Somebody", "Other Authority");
    fs::create_directory(layout_.anchors);
    fs::copy_file(other.rootFile(), fs::path(layout_.anchors) / "other.crt");
    ASSERT_TRUE(store().add(authority().root()).succeeded());
    auto status = store().status();
    ASSERT_EQ(status.certificates.size(), 1U);
    EXPECT_EQ(status.certificates[0].label, "Orvane Certification Authority");
    EXPECT_EQ(status.others.size(), 1U);
    EXPECT_EQ(status.text, "");
    // As after a kill between writing and the update.
    fs::copy_file(authority().issuerFile(), store().anchorPath(authority().issuer()));
    status = store().status();
    EXPECT_EQ(status.certificates.size(), 1U);
    EXPECT_THAT(status.text, HasSubstr("has no effect"));
}

TEST_F(DistributionTrustStoreTest, WaitsForItsTurnOnlySoLong)
{
    const kf::security::FileLock lock(layout_.lock, std::chrono::seconds(0));
    ASSERT_TRUE(lock.isHeld());
    for (const Outcome& outcome : {store().add(authority().root()), store().remove(authority().root())}) {
        EXPECT_FALSE(outcome.succeeded());
        EXPECT_THAT(outcome.text, HasSubstr("keeps it locked"));
    }
    EXPECT_FALSE(fs::exists(layout_.anchors));
    EXPECT_EQ(runs(), 0U);
}

/// The folders of a distribution that is not this one, and a command that does as its own does.
class OtherDistributionTest : public ::testing::TestWithParam<const char*> {
protected:
    OtherDistributionTest()
    {
        std::string pattern = (fs::temp_directory_path() / "keyfold-tree-XXXXXX").string();
        root_ = ::mkdtemp(pattern.data());
        const auto layout = layoutFor(GetParam());
        if (!layout)
            throw std::runtime_error("not known");
        layout_ = *layout;
        for (std::string* path : {&layout_.anchors, &layout_.bundle, &layout_.command[0], &layout_.lock})
            *path = root_ / path->substr(1);
        for (const std::string& path : {layout_.anchors, layout_.bundle, layout_.command[0], layout_.lock})
            fs::create_directories(fs::path(path).parent_path());
        fs::create_directory(layout_.anchors);
        // Both distributions' commands write a comment above each certificate.
        writeFile(layout_.command[0],
            "#!/bin/sh\necho \"$@\" >> " + (root_ / "words").string() + "\n: > " + layout_.bundle + "\nfor file in "
                + layout_.anchors + "/*; do [ -e $file ] && { echo \"# $file\"; cat $file; } >> " + layout_.bundle
                + "; done\nexit 0\n");
        ::chmod(layout_.command[0].c_str(), 0755);
    }
    ~OtherDistributionTest() override { fs::remove_all(root_); }

    fs::path root_;
    DistributionTrustStore::Layout layout_;
};

TEST_P(OtherDistributionTest, AddsRemovesAndTells)
{
    static const Authority authority;
    DistributionTrustStore store(layout_);
    writeFile(layout_.anchors + "/theirs.pem", std::string_view("theirs\n"));
    const Outcome added = store.add(authority.root());
    EXPECT_EQ(added.kind, Outcome::Kind::done) << added.text;
    EXPECT_TRUE(fs::exists(store.anchorPath(authority.root())));
    EXPECT_EQ(store.add(authority.root()).kind, Outcome::Kind::unchanged);
    ASSERT_EQ(store.status().certificates.size(), 1U);
    EXPECT_EQ(store.remove(authority.root()).kind, Outcome::Kind::done);
    EXPECT_EQ(store.remove(authority.root()).kind, Outcome::Kind::unchanged);
    EXPECT_EQ(std::distance(fs::directory_iterator(layout_.anchors), fs::directory_iterator()), 1);
    std::string words;
    for (std::size_t index = 1; index < layout_.command.size(); ++index)
        words += layout_.command[index];
    const auto recorded = kf::test::readFile(root_ / "words");
    EXPECT_EQ(std::string(recorded.begin(), recorded.end()), words + "\n" + words + "\n") << "once for each change";
}

constexpr const char* fedora = "NAME=\"Fedora Linux\"\nID=fedora\nVERSION_ID=41\n";
constexpr const char* arch = "NAME=\"Arch Linux\"\nID=arch\n";
constexpr const char* openSUSE =
    "NAME=\"openSUSE Tumbleweed\"\nID=\"opensuse-tumbleweed\"\nID_LIKE=\"opensuse suse\"\n";
INSTANTIATE_TEST_SUITE_P(Distributions, OtherDistributionTest, ::testing::Values(fedora, arch, openSUSE));

TEST(DistributionLayout, IsToldByOSRelease)
{
    const auto anchorsOf = [](const char* text) {
        const auto layout = layoutFor(text);
        return layout ? layout->anchors + " *" + layout->suffix + " " + layout->command[0] : std::string();
    };
    const std::string debian = "/usr/local/share/ca-certificates *.crt /usr/sbin/update-ca-certificates";
    EXPECT_EQ(anchorsOf("ID=debian\n"), debian);
    EXPECT_EQ(anchorsOf("VERSION=\"24.04\"\nID=ubuntu\nID_LIKE=debian"), debian);
    EXPECT_EQ(anchorsOf("ID=linuxmint\nID_LIKE=\"ubuntu debian\"\n"), debian);
    EXPECT_EQ(anchorsOf(fedora), "/etc/pki/ca-trust/source/anchors *.pem /usr/bin/update-ca-trust");
    EXPECT_EQ(anchorsOf("ID='rocky'\nID_LIKE='rhel centos fedora'\n"), anchorsOf(fedora));
    EXPECT_EQ(anchorsOf(arch), "/etc/ca-certificates/trust-source/anchors *.crt /usr/bin/update-ca-trust");
    EXPECT_EQ(anchorsOf(openSUSE), "/etc/pki/trust/anchors *.pem /usr/sbin/update-ca-certificates");
    EXPECT_EQ(anchorsOf("ID=sles\nID_LIKE=suse\n"), anchorsOf(openSUSE));
    for (const char* unknown : {"", "ID=gentoo\n", "NAME=debian\n", "# ID=debian\n", "VARIANT_ID=debian\n"})
        EXPECT_EQ(anchorsOf(unknown), "");
    EXPECT_THAT(layoutFor(fedora)->command, ::testing::ElementsAre("/usr/bin/update-ca-trust", "extract"));
}

TEST(DistributionLayout, WithoutOneAdditionsFailAndRemovalsDoNot)
{
    EXPECT_TRUE(DistributionTrustStore(std::nullopt).removeAll().succeeded());
    static const Authority authority;
    DistributionTrustStore store(std::nullopt);
    EXPECT_EQ(store.add(authority.root()).kind, Outcome::Kind::failed);
    EXPECT_EQ(store.remove(authority.root()).kind, Outcome::Kind::notPresent);
    EXPECT_EQ(store.status().kind, kf::security::PlaceStatus::Kind::notPresent);
}

} // namespace
