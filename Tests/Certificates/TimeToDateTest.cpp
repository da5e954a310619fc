#include "Certificates/X509Certificate.h"
#include "Foundation/NSDate.h"
#include "Tests/Certificates/AnyCertificate.h"
#include "Tests/Certificates/FieldModule.h"

#include <gtest/gtest.h>

#include <optional>

namespace kf::test {
namespace {

using namespace std::string_view_literals;

/// Times go the way that a certificate's own do, through a certificate library
/// that hands them over as the test says.
class TimeToDateTest : public testing::Test {
protected:
    /// Seconds since the Unix epoch, or nothing where the time gives no date.
    std::optional<double> secondsOf(CSSM_DATA bytes, CSSM_BER_TAG type = BER_TAG_UTC_TIME)
    {
        CSSM_X509_TIME time{type, bytes};
        module.fields = {fieldOf(CSSMOID_X509V1ValidityNotBefore, time)};
        const auto dictionary = X509Certificate::extractCertDictFromCert(certificate);
        const auto date = dictionary ? dictionary->objectAs<NSDate>("NotValidBefore"_ns) : nullptr;
        EXPECT_EQ(dictionary->count(), date ? 1U : 0U);
        return date ? std::optional(date->timeIntervalSince1970()) : std::nullopt;
    }
    std::optional<double> secondsOf(std::string_view text)
    {
        // A copy of exactly this size, so that a sanitizer sees a step too far.
        std::vector<std::uint8_t> bytes(text.begin(), text.end());
        return secondsOf(CSSM_DATA{bytes.size(), bytes.data()});
    }

    SecCertificateRef certificate = anyCertificate();
    FieldModule module;
};

struct TimeVector {
    std::string_view time;
    std::optional<double> seconds; ///< since the Unix epoch, as "date -u -d ... +%s" gives it
};

constexpr TimeVector vectors[] = {
    // Two-digit years: 2000 to 2049, 1970 to 1999, and nothing between them.
    {"000101000000Z"sv, 946684800},
    {"081231235959Z"sv, 1230767999},
    {"491231235959Z"sv, 2524607999},
    {"500101000000Z"sv, std::nullopt},
    {"550615120000Z"sv, std::nullopt},
    {"691231235959Z"sv, std::nullopt},
    {"700101000000Z"sv, 0},
    {"991231235959Z"sv, 946684799},
    // Four-digit years as they stand.
    {"20500101000000Z"sv, 2524608000},
    {"19500101000000Z"sv, -631152000},
    {"20081231235959Z"sv, 1230767999},
    {"00000101000000Z"sv, -62167219200},
    {"99991231235959Z"sv, 253402300799},
    // One trailing NUL, counted in the length.
    {"081231235959Z\0"sv, 1230767999},
    {"20081231235959Z\0"sv, 1230767999},
    {"081231235959Z\0\0"sv, std::nullopt},
    {"20081231235959Z\0\0"sv, std::nullopt},
    {"08123123595Z\0\0"sv, std::nullopt},
    {"08123123595\0Z"sv, std::nullopt},
    // Lengths.
    {""sv, std::nullopt},
    {"\0"sv, std::nullopt},
    {"Z"sv, std::nullopt},
    {"0812310000Z"sv, std::nullopt},
    {"08123100000Z"sv, std::nullopt},
    {"0812310000000Z"sv, std::nullopt},
    {"200812310000000Z"sv, std::nullopt},
    // Not plain Zulu time.
    {"081231000000+0100"sv, std::nullopt},
    {"081231000000.5Z"sv, std::nullopt},
    {"20081231000000.5Z"sv, std::nullopt},
    {"081231000000z"sv, std::nullopt},
    {"0812310000000"sv, std::nullopt},
    {"200812310000000"sv, std::nullopt},
    // Digits only.
    {"0812310000 0Z"sv, std::nullopt},
    {" 81231000000Z"sv, std::nullopt},
    {"+81231000000Z"sv, std::nullopt},
    {"-81231000000Z"sv, std::nullopt},
    {"0x1231000000Z"sv, std::nullopt},
    {"\xB0"
     "81231000000Z"sv,
        std::nullopt},
    {"08123100000\xB2Z"sv, std::nullopt},
    {"0812310000:0Z"sv, std::nullopt},
    {"0812310000/0Z"sv, std::nullopt},
    // Ranges.
    {"080001000000Z"sv, std::nullopt},
    {"081301000000Z"sv, std::nullopt},
    {"080100000000Z"sv, std::nullopt},
    {"080132000000Z"sv, std::nullopt},
    {"081231240000Z"sv, std::nullopt},
    {"081231236000Z"sv, std::nullopt},
    {"081231235960Z"sv, std::nullopt},
    {"20081231235960Z"sv, std::nullopt},
    // A day past the end of its month runs on into the next.
    {"080231000000Z"sv, 1204416000},
    {"070231000000Z"sv, 1172880000},
    {"080431000000Z"sv, 1209600000},
    {"080229000000Z"sv, 1204243200},
};

TEST_F(TimeToDateTest, ReadsPlainZuluTimesAndNothingElse)
{
    for (const auto& [time, seconds] : vectors)
        EXPECT_EQ(secondsOf(time), seconds) << testing::PrintToString(std::string(time));
}

TEST_F(TimeToDateTest, TellsTheFormsApartByLengthAlone)
{
    std::string utc = "081231235959Z";
    std::string generalized = "20081231235959Z";
    for (const CSSM_BER_TAG type : {BER_TAG_UTC_TIME, BER_TAG_GENERALIZED_TIME, CSSM_BER_TAG{0}}) {
        EXPECT_EQ(secondsOf({utc.size(), reinterpret_cast<std::uint8_t*>(utc.data())}, type), 1230767999);
        EXPECT_EQ(
            secondsOf({generalized.size(), reinterpret_cast<std::uint8_t*>(generalized.data())}, type), 1230767999);
    }
}

TEST_F(TimeToDateTest, ReadsNothingFromNothing)
{
    EXPECT_EQ(secondsOf(CSSM_DATA{0, nullptr}), std::nullopt);
    EXPECT_EQ(secondsOf(CSSM_DATA{13, nullptr}), std::nullopt);
}

TEST_F(TimeToDateTest, EveryTwoDigitYear)
{
    for (int digits = 0; digits < 100; ++digits) {
        const std::string two = {static_cast<char>('0' + digits / 10), static_cast<char>('0' + digits % 10)};
        const auto date = secondsOf(two + "0101000000Z");
        if (digits >= 50 && digits <= 69) {
            EXPECT_EQ(date, std::nullopt) << two;
            continue;
        }
        EXPECT_EQ(date, secondsOf((digits < 50 ? "20" : "19") + two + "0101000000Z")) << two;
        EXPECT_TRUE(date) << two;
    }
}

} // namespace
} // namespace kf::test
