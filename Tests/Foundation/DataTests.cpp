#include "Foundation/NSData.h"
#include "Foundation/NSString.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class DataFile : public testing::Test {
protected:
    DataFile()
    {
        std::string name = (fs::temp_directory_path() / "keyfold-data-XXXXXX").string();
        directory_ = mkdtemp(name.data());
    }
    ~DataFile() override { fs::remove_all(directory_); }

    static Ref<NSData> read(const fs::path& path)
    {
        return NSData::dataWithContentsOfFile(NSString::stringWithUTF8String(path.native()));
    }

    fs::path directory_;
};

TEST_F(DataFile, IsReadWhole)
{
    std::string content(100000, 'x');
    content[50000] = '\0';
    const fs::path path = directory_ / "gr\u00FC\u00DFe.der";
    std::ofstream(path, std::ios::binary) << content;
    const auto data = read(path);
    ASSERT_TRUE(data);
    EXPECT_EQ(std::string(data->span().begin(), data->span().end()), content);
}

TEST_F(DataFile, MayBeEmpty)
{
    std::ofstream(directory_ / "empty").flush();
    const auto data = read(directory_ / "empty");
    ASSERT_TRUE(data);
    EXPECT_EQ(data->length(), 0U);
}

TEST_F(DataFile, ThatReportsNoSizeIsReadToItsEnd)
{
    const auto data = NSData::dataWithContentsOfFile("/proc/self/cmdline"_ns);
    ASSERT_TRUE(data);
    EXPECT_GT(data->length(), 0U);
}

TEST_F(DataFile, IsNilWhereItCannotBeRead)
{
    EXPECT_FALSE(read(directory_ / "missing"));
    EXPECT_FALSE(read(directory_));
    EXPECT_FALSE(NSData::dataWithContentsOfFile(nullptr));
    EXPECT_FALSE(NSData::dataWithContentsOfFile(""_ns));
    EXPECT_FALSE(NSData::dataWithContentsOfFile(NSString::stringWithCharacters(u"\xD800")));
    EXPECT_FALSE(NSData::dataWithContentsOfFile(NSString::stringWithCharacters(std::u16string(u"/dev/null\0x", 11))));
}

TEST_F(DataFile, IsNilForWhatIsNoRegularFileWithoutWaiting)
{
    const fs::path pipe = directory_ / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_FALSE(read(pipe));
    EXPECT_FALSE(read("/dev/zero"));
}

TEST(Data, ComparesByContent)
{
    const auto a = NSData::dataWithBytes("abc", 3);
    const auto b = NSData::dataWithVector({'a', 'b', 'c'});
    EXPECT_TRUE(a->isEqualToData(b));
    EXPECT_EQ(CFHash(a), CFHash(b));
    EXPECT_FALSE(a->isEqualToData(NSData::dataWithBytes("abd", 3)));
    EXPECT_FALSE(a->isEqualToData(nullptr));
    EXPECT_FALSE(CFEqual(a, "abc"_ns));
    EXPECT_TRUE(NSData::data()->isEqualToData(NSData::dataWithBytes(nullptr, 0)));
}

TEST(Data, DescribesItself)
{
    EXPECT_EQ(toUTF8(NSData::dataWithVector({0, 0x1F, 0xA0, 0xFF, 0x10})->description()), "<001fa0ff 10>");
    EXPECT_EQ(toUTF8(NSData::data()->description()), "<>");
}

TEST(MutableData, Grows)
{
    const auto data = NSMutableData::data();
    data->appendBytes("ab", 2);
    data->appendBytes(nullptr, 0);
    data->appendBytes("c", 1);
    EXPECT_TRUE(data->isEqualToData(NSData::dataWithBytes("abc", 3)));
}

} // namespace
