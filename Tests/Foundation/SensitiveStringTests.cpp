#include "Foundation/NSFormat.h"
#include "Foundation/SecretBytes.h"
#include "Tests/Foundation/WipeRecorder.h"

#include <gmock/gmock.h>

namespace {

using testing::Contains;
using testing::Not;

class SensitiveString : public testing::Test {
protected:
    SensitiveString() { recordWiping(&wiped_); }
    ~SensitiveString() override { recordWiping(nullptr); }

    std::vector<std::string> wiped_;
};

TEST_F(SensitiveString, IsWipedWhenItsLastReferenceGoes)
{
    auto secret = NSString::sensitiveStringWithUTF8String("open sesame");
    auto copy = NSString::stringWithString(secret);
    EXPECT_EQ(copy, secret);
    wiped_.clear();
    secret.reset();
    EXPECT_THAT(wiped_, Not(Contains("open sesame")));
    copy.reset();
    EXPECT_THAT(wiped_, Contains("open sesame"));
}

TEST_F(SensitiveString, IsWipedInSixteenBitsToo)
{
    auto secret = NSString::sensitiveStringWithUTF8String("\u2603\u2604");
    ASSERT_TRUE(secret->isWide());
    wiped_.clear();
    secret.reset();
    EXPECT_THAT(wiped_, Contains(std::string("\x03\x26\x04\x26", 4)));
}

TEST_F(SensitiveString, LeavesNoCopyOfItsMaking)
{
    const auto secret = NSString::sensitiveStringWithUTF8String("open sesame");
    const std::u16string units = u"open sesame";
    const std::string bytes(reinterpret_cast<const char*>(units.data()), units.size() * 2);
    EXPECT_THAT(wiped_, Contains(testing::HasSubstr(bytes)));
}

TEST_F(SensitiveString, WipesWhatIsMadeOfIt)
{
    const auto secret = NSString::sensitiveStringWithUTF8String("open sesame");
    wiped_.clear();
    CFStringCreateWithSubstring(secret.get(), {5, 6}).reset();
    EXPECT_THAT(wiped_, Contains("sesame"));
    "x"_ns->stringByAppendingString(secret).reset();
    EXPECT_THAT(wiped_, Contains("xopen sesame"));
}

TEST_F(SensitiveString, MutableCopyWipesEveryBlockAndPassesTheMarkOn)
{
    const auto secret = NSString::sensitiveStringWithUTF8String("open sesame");
    wiped_.clear();
    auto copy = NSMutableString::stringWithString(secret);
    copy->appendString(" and some more that makes it grow"_ns);
    EXPECT_THAT(wiped_, Contains(testing::HasSubstr("open sesame")));
    wiped_.clear();
    NSString::stringWithString(copy).reset();
    EXPECT_THAT(wiped_, Contains("open sesame and some more that makes it grow"));
    wiped_.clear();
    copy.reset();
    EXPECT_THAT(wiped_, Contains(testing::HasSubstr("open sesame and some more")));
}

TEST_F(SensitiveString, DoesNotTellItsTextToFormats)
{
    const auto secret = NSString::sensitiveStringWithUTF8String("open sesame");
    EXPECT_EQ(toUTF8(NSStringWithFormat("The word is %@.", secret)), "The word is (secret).");
    EXPECT_EQ(secret->UTF8String(), "open sesame");
}

TEST_F(SensitiveString, OrdinaryStringsAreNotWiped)
{
    NSString::stringWithUTF8String("no secret at all").reset();
    EXPECT_THAT(wiped_, testing::IsEmpty());
}

TEST_F(SensitiveString, SecretBytesAreWipedWhenTheyGrowAndGo)
{
    {
        SecretBytes bytes{'a', 'b', 'c'};
        bytes.insert(bytes.end(), 100, 'd');
    }
    ASSERT_EQ(wiped_.size(), 2U);
    EXPECT_EQ(wiped_[0], "abc");
    EXPECT_EQ(wiped_[1].substr(0, 4), "abcd");
}

} // namespace
