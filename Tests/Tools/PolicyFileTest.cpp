// Policy files that others wrote, and what a record remembers of ours.

#include "security/PolicyFile.h"
#include "Tests/Support/Fixtures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using kf::security::PolicyEntry;
using kf::security::PolicyFile;
using kf::security::Record;
using kf::test::writeFile;
using ::testing::HasSubstr;
using Kind = PolicyEntry::Kind;

class PolicyFileTest : public ::testing::Test {
protected:
    PolicyFileTest()
    {
        std::string pattern = (fs::temp_directory_path() / "keyfold-policy-XXXXXX").string();
        directory_ = ::mkdtemp(pattern.data());
        path_ = directory_ / "etc/policies/policies.json";
    }
    ~PolicyFileTest() override { fs::remove_all(directory_); }

    void setContent(const std::string& text)
    {
        fs::create_directories(path_.parent_path());
        writeFile(path_, text);
    }
    std::string content() const
    {
        const auto bytes = kf::test::readFile(path_);
        return {bytes.begin(), bytes.end()};
    }
    Record record() const { return Record(directory_ / "state/record"); }

    /// One run of the tool: puts the entries in. Gives what went wrong.
    std::string put(const std::vector<PolicyEntry>& entries)
    {
        Record record = this->record();
        PolicyFile file(path_, record);
        for (const PolicyEntry& entry : entries)
            file.put(entry);
        std::string error = file.save();
        return error.empty() ? record.save() : error;
    }
    std::string take(const std::vector<PolicyEntry>& entries)
    {
        Record record = this->record();
        PolicyFile file(path_, record);
        for (const PolicyEntry& entry : entries)
            file.take(entry);
        std::string error = file.save();
        if (!fs::exists(path_))
            record.removeDirectories();
        return error.empty() ? record.save() : error;
    }

    const PolicyEntry item_{Kind::item, {"policies", "Certificates", "Install"}, "/ours.pem"};
    const PolicyEntry member_{Kind::member, {"policies", "SecurityDevices", "Ours"}, "/module.so"};
    fs::path directory_;
    fs::path path_;
};

TEST_F(PolicyFileTest, MakesAFileAndTakesItAwayAgain)
{
    EXPECT_EQ(put({item_, member_}), "");
    EXPECT_EQ(content(),
        "{\n  \"policies\": {\n    \"Certificates\": {\n      \"Install\": [\n        \"/ours.pem\"\n      ]\n    },\n"
        "    \"SecurityDevices\": {\n      \"Ours\": \"/module.so\"\n    }\n  }\n}\n");
    EXPECT_EQ(take({item_}), "");
    EXPECT_EQ(
        content(), "{\n  \"policies\": {\n    \"SecurityDevices\": {\n      \"Ours\": \"/module.so\"\n    }\n  }\n}\n");
    EXPECT_EQ(take({member_}), "");
    EXPECT_TRUE(fs::is_empty(directory_)) << "file, directories and record are gone";
}

TEST_F(PolicyFileTest, KeepsOrderValuesAndLayoutOfOthers)
{
    const std::string theirs =
        "{\n\t\"z\": 1,\n\t\"policies\": {\n\t\t\"Zoom\": \"\\u00e9/\",\n\t\t\"Certificates\": {\n"
        "\t\t\t\"ImportEnterpriseRoots\": true,\n\t\t\t\"Install\": [\n\t\t\t\t\"a.pem\"\n\t\t\t]\n"
        "\t\t},\n\t\t\"Numbers\": [\n\t\t\t-1,\n\t\t\t18446744073709551615,\n\t\t\t0.5\n\t\t]\n\t},\n"
        "\t\"a\": null\n}";
    setContent(theirs);
    EXPECT_EQ(put({item_, member_}), "");
    std::string with = theirs;
    with.replace(with.find("\\u00e9"), 6, "\u00e9"); // another way to write the same
    const std::string without = with;
    with.insert(with.find("\n\t\t\t]"), ",\n\t\t\t\t\"/ours.pem\"");
    with.insert(with.find("\n\t},\n\t\"a\""), ",\n\t\t\"SecurityDevices\": {\n\t\t\t\"Ours\": \"/module.so\"\n\t\t}");
    EXPECT_EQ(content(), with);
    EXPECT_EQ(take({item_, member_}), "");
    EXPECT_EQ(content(), without);
}

TEST_F(PolicyFileTest, LeavesEmptyObjectsAndFilesOfOthers)
{
    for (const char* theirs : {"{}\n", "{\"policies\":{}}", "{\"policies\":{\"Certificates\":{}}}\n",
             "{\"policies\":{\"Certificates\":{\"Install\":[]},\"SecurityDevices\":{}}}"}) {
        setContent(theirs);
        EXPECT_EQ(put({item_, member_}), "");
        EXPECT_NE(content(), theirs);
        EXPECT_EQ(take({item_, member_}), "");
        EXPECT_EQ(content(), theirs);
    }
}

TEST_F(PolicyFileTest, LeavesWhatOthersAddedToAFileOfOurs)
{
    EXPECT_EQ(put({item_}), "");
    setContent("{\"policies\":{\"Certificates\":{\"Install\":[\"/ours.pem\",\"theirs.pem\"]}}}");
    EXPECT_EQ(take({item_}), "");
    EXPECT_EQ(content(), "{\"policies\":{\"Certificates\":{\"Install\":[\"theirs.pem\"]}}}");
}

TEST_F(PolicyFileTest, PuttingAgainChangesNothing)
{
    setContent("{ \"policies\" : {} }");
    EXPECT_EQ(put({item_, member_}), "");
    const auto before = fs::last_write_time(path_);
    EXPECT_EQ(put({item_, member_}), "");
    EXPECT_EQ(fs::last_write_time(path_), before);
}

TEST_F(PolicyFileTest, KeepsTheModeOfAFileAndGivesNewOnesToAll)
{
    EXPECT_EQ(put({item_}), "");
    struct stat status = {};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
    ::chmod(path_.c_str(), 0640);
    EXPECT_EQ(put({member_}), "");
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(PolicyFileTest, LeavesAndTellsWhatIsNotStrictJSON)
{
    const std::vector<std::pair<std::string, std::string>> files = {{"", "is not strict JSON"},
        {"{\"policies\": {}", "is not strict JSON (at byte 16)"}, {"{} // none", "is not strict JSON"},
        {"{/* none */}", "is not strict JSON"}, {"{\"a\": 1,}", "is not strict JSON"},
        {"{'a': 1}", "is not strict JSON"}, {"{\"a\": \"\xFF\"}", "is not strict JSON"},
        {"\xEF\xBB\xBF{}", "is not strict JSON"}, {std::string("{}\0x", 4), "is not strict JSON"},
        {"{\"a\": NaN}", "is not strict JSON"}, {"[]", "is not an object"}, {"7", "is not an object"},
        {"{\"a\": 1, \"b\": {}, \"a\": 2}", "holds the key \"a\" twice in one object"},
        {"{\"a\": 123456789012345678901234567890}", "holds a number too long to be kept exactly"},
        {"{\"a\": " + std::string(100, '[') + std::string(100, ']') + "}", "holds too many levels"},
        {"{\"policies\": 7}", "has something at /policies that is not an object"},
        {"{\"policies\": {\"Certificates\": {\"Install\": {}}}}",
            "has something at /policies/Certificates/Install that is not a list"}};
    for (const auto& [text, reason] : files) {
        setContent(text);
        EXPECT_THAT(put({item_}), HasSubstr(path_.string() + " " + reason));
        EXPECT_EQ(content(), text);
    }
    EXPECT_FALSE(fs::exists(directory_ / "state"));
}

TEST_F(PolicyFileTest, LeavesAndTellsWhatIsNoFileOfBearableSize)
{
    const std::string full = "{\"a\": \"" + std::string(PolicyFile::sizeLimit - 9, 'x') + "\"}";
    setContent(full);
    EXPECT_EQ(put({}), "") << "as much as may be";
    setContent(full + " ");
    EXPECT_THAT(put({item_}), HasSubstr("is larger than 4096 KiB"));
    fs::rename(path_, directory_ / "elsewhere");
    fs::create_symlink(directory_ / "elsewhere", path_);
    EXPECT_THAT(put({item_}), HasSubstr("is a symbolic link"));
    fs::remove(path_);
    ASSERT_EQ(::mkfifo(path_.c_str(), 0644), 0);
    EXPECT_THAT(put({item_}), HasSubstr("is not a regular file")) << "and does not wait for a writer";
    fs::remove(path_);
    fs::create_directory(path_);
    EXPECT_THAT(put({item_}), HasSubstr("is not a regular file"));
}

TEST_F(PolicyFileTest, WhatACrashLeftBesideItIsGoneAfterwards)
{
    setContent("{}");
    const fs::path leftover = path_.parent_path() / ".policies.json.keyfold-new";
    writeFile(leftover, std::string_view("{\"polic"));
    EXPECT_EQ(put({item_}), "");
    EXPECT_FALSE(fs::exists(leftover));
}

TEST_F(PolicyFileTest, WhatACrashLeftIsGoneAfterARunThatChangesNothing)
{
    ASSERT_EQ(put({item_}), "");
    const std::string before = content();
    const fs::path besidePolicies = path_.parent_path() / ".policies.json.keyfold-new";
    const fs::path besideRecord = directory_ / "state/.record.keyfold-new";
    writeFile(besidePolicies, std::string_view("{\"polic"));
    writeFile(besideRecord, std::string_view("item"));
    EXPECT_EQ(put({item_}), "");
    EXPECT_EQ(content(), before);
    EXPECT_FALSE(fs::exists(besidePolicies));
    EXPECT_FALSE(fs::exists(besideRecord));
}

TEST_F(PolicyFileTest, ARecordThatCannotBeReadStopsEverything)
{
    fs::create_directories(directory_ / "state/record");
    EXPECT_THAT(put({item_}), HasSubstr("record: is not a regular file"));
    EXPECT_FALSE(fs::exists(path_));
}

TEST_F(PolicyFileTest, ARecordIsWiderThanTheChangeWhileItIsMade)
{
    Record record = this->record();
    record.add("old");
    ASSERT_EQ(record.save(), "");
    record.erase("old");
    record.add("new");
    ASSERT_EQ(record.prepare(), "");
    EXPECT_TRUE(this->record().has("old") && this->record().has("new"));
    ASSERT_EQ(record.save(), "");
    EXPECT_FALSE(this->record().has("old"));
    EXPECT_TRUE(this->record().has("new"));
}

} // namespace
