// The files that a person hands over: bundles in binary, in base64 text, and between BEGIN and END lines.
#include "keyfold/InputFiles.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/ScratchHome.h"

#include <QByteArray>

#include <gmock/gmock.h>

namespace {

using kf::InputError;
using testing::EndsWith;
using testing::HasSubstr;

class InputFiles : public testing::Test {
protected:
    /// What is read from a file of this content; a text that starts with "error: " where it is refused.
    std::string read(std::string_view content)
    {
        const auto file = home_.path() / "bundle";
        kf::test::writeFile(file, content);
        const auto bundle = kf::readPKCS12AsBase64(file);
        if (const auto* error = std::get_if<InputError>(&bundle))
            return "error: " + error->message;
        return toUTF8(std::get<Ref<NSString>>(bundle));
    }

    kf::test::ScratchHome home_;
};

constexpr const char* encoded = "MIIKQQIBAzCCCgcGCSqGSIb3DQEHAaCCCfgEggn0MIIJ8DCCBGoGCSqGSIb3DQEH\nBqCCBFs=\n";

TEST_F(InputFiles, ABinaryBundleIsEncoded) { EXPECT_EQ(read("0\x82\x01 -----BEGIN \xff"), "MIIBIC0tLS0tQkVHSU4g/w=="); }

TEST_F(InputFiles, AFileOfAnySizeUpToEightMebibytesIsReadWhole)
{
    constexpr std::size_t limit = std::size_t{8} << 20;
    for (const std::size_t size :
        {std::size_t{16383}, std::size_t{16384}, std::size_t{16385}, std::size_t{100'000}, limit}) {
        std::string text(size, 'A');
        text.back() = 'B';
        EXPECT_EQ(read(text), text) << size;
    }
    EXPECT_THAT(read(std::string(limit + 1, 'A')), EndsWith("bundle is longer than 8388608 bytes"));
}

TEST_F(InputFiles, Base64TextIsTakenAsItIs) { EXPECT_EQ(read(encoded), encoded); }

TEST_F(InputFiles, OfAWrappedBundleOnlyWhatIsBetweenTheLinesIsTaken)
{
    const std::string wrapped = std::string("-----BEGIN PKCS12-----\n") + encoded + "-----END PKCS12-----\n";
    EXPECT_EQ(read(wrapped), std::string("\n") + encoded);
    EXPECT_EQ(read("a note: what follows is Åse's\r\n" + wrapped + "-- \nsignature\n"), std::string("\n") + encoded);
}

TEST_F(InputFiles, WhatCerttoolWrapsIsTaken)
{
    const auto path = [&](const char* name) { return (home_.path() / name).string(); };
    kf::test::mustRun({"certtool", "--generate-privkey", "--key-type", "ecdsa", "--outfile", path("key")});
    kf::test::writeFile(path("template"), "cn = Ada\n");
    kf::test::mustRun({"certtool", "--generate-self-signed", "--load-privkey", path("key"), "--template",
        path("template"), "--outfile", path("certificate")});
    kf::test::mustRun({"certtool", "--to-p12", "--load-privkey", path("key"), "--load-certificate", path("certificate"),
        "--p12-name", "Ada", "--password", "correct horse", "--outfile", path("wrapped")});
    const auto bundle = kf::readPKCS12AsBase64(path("wrapped"));
    ASSERT_TRUE(std::holds_alternative<Ref<NSString>>(bundle)) << std::get<InputError>(bundle).message;
    const auto bytes = QByteArray::fromBase64(QByteArray::fromStdString(toUTF8(std::get<Ref<NSString>>(bundle))));
    kf::test::writeFile(path("binary"), std::string_view(bytes.constData(), static_cast<std::size_t>(bytes.size())));
    kf::test::mustRun({"openssl", "pkcs12", "-in", path("binary"), "-noout", "-passin", "pass:correct horse"});
}

TEST_F(InputFiles, AWrappedFileThatHoldsSomethingElseIsRefusedInWords)
{
    EXPECT_THAT(read("-----BEGIN CERTIFICATE-----\nMIIC\n-----END CERTIFICATE-----\n"),
        EndsWith("bundle holds no PKCS#12 bundle: no line of it is -----BEGIN PKCS12-----"));
}

TEST_F(InputFiles, AWrappedFileThatIsCutOffOrDamagedIsRefusedInWords)
{
    EXPECT_THAT(read(std::string("-----BEGIN PKCS12-----\n") + encoded),
        EndsWith("bundle is cut off: the line -----END PKCS12----- is missing"));
    for (const char* content : {"\n", "MIIK*QQ\n"})
        EXPECT_THAT(read(std::string("-----BEGIN PKCS12-----") + content + "-----END PKCS12-----"),
            HasSubstr("bundle is damaged"));
}

} // namespace
