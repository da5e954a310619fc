#include "Certificates/X509Certificate.h"
#include "Foundation/NSDate.h"
#include "Tests/Certificates/AnyCertificate.h"
#include "Tests/Certificates/FieldModule.h"
#include "Tests/Certificates/VectorFile.h"

#include <gtest/gtest.h>

#include <optional>

namespace kf::test {
namespace {

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

/// What the file of times says of a time.
std::optional<double> secondsIn(const std::string& column)
{
    return column == "none" ? std::nullopt : std::optional(std::stod(column));
}

TEST_F(TimeToDateTest, ReadsPlainZuluTimesAndNothingElse)
{
    const auto rows = readVectors("times.txt", 2);
    ASSERT_GT(rows.size(), 50U);
    for (const auto& row : rows)
        EXPECT_EQ(secondsOf(row[0]), secondsIn(row[1])) << testing::PrintToString(row[0]);
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
