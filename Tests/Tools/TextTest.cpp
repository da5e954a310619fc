// How the tool writes what a certificate says.

#include "security/Text.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using kf::CertificateFields;
using kf::security::serialText;

struct Row {
    std::vector<std::uint8_t> integer;
    const char* text;
};

TEST(SerialText, IsTheNumberAsOpenSSLWritesIt)
{
    const Row rows[] = {
        {{0x02, 0x01, 0x00}, "00"},
        {{0x02, 0x01, 0x01}, "01"},
        {{0x02, 0x01, 0x7F}, "7F"},
        {{0x02, 0x02, 0x00, 0x80}, "80"}, // the zero octet only keeps the number from being negative
        {{0x02, 0x03, 0x00, 0xBD, 0x50}, "BD50"},
        {{0x02, 0x02, 0x01, 0x00}, "0100"},
        {{0x02, 0x01, 0xFF}, "-01"},
        {{0x02, 0x01, 0x80}, "-80"},
        {{0x02, 0x02, 0xFF, 0x7F}, "-81"},
    };
    for (const Row& row : rows) {
        CertificateFields fields;
        fields.serial = row.integer;
        EXPECT_EQ(serialText(fields), row.text);
    }
}

TEST(SerialText, ANumberOfTwentyOctetsIsShownWhole)
{
    std::vector<std::uint8_t> integer = {0x02, 0x15, 0x00};
    integer.insert(integer.end(), 20, 0xAB);
    CertificateFields fields;
    fields.serial = integer;
    std::string expected;
    for (int octet = 0; octet < 20; ++octet)
        expected += "AB";
    EXPECT_EQ(serialText(fields), expected);
}

TEST(SerialText, OctetsThatAreNoNumberStandAsTheyAre)
{
    const std::vector<std::uint8_t> padded = {0x02, 0x02, 0x00, 0x01}; // DER forbids the zero octet here
    CertificateFields fields;
    fields.serial = padded;
    EXPECT_EQ(serialText(fields), "0001");
}

} // namespace
