// Bundles as other programs make them: GnuTLS's certtool and NSS's pk12util; openssl's are everywhere else.
#include "KeychainFixture.h"

#include <gmock/gmock.h>

namespace {

using kf::keychain::readBundle;
using kf::test::authority;
using kf::test::BundleOptions;
using kf::test::Bytes;
using kf::test::KeyKind;
using kf::test::mustRun;
using kf::test::readFile;
using kf::test::secret;
using kf::test::writeFile;
using testing::SizeIs;

constexpr const char* friendlyName = "Åse Ünäl – 学";
constexpr const char* passphrase = "pässwörd € x";

/// A member with her chain, as openssl packs them.
const kf::test::Bundle& member(KeyKind kind)
{
    static std::map<KeyKind, kf::test::Bundle> made;
    const auto [place, isNew] = made.try_emplace(kind);
    if (isNew) {
        BundleOptions options;
        options.key = kind;
        options.withChain = true;
        options.passphrase = passphrase;
        options.friendlyName = friendlyName;
        place->second = authority().issue(options);
    }
    return place->second;
}

/// Key, leaf and both authorities are those of the member.
void expectMember(const Bytes& bundle, const std::string& opens, KeyKind kind, const char* label = friendlyName)
{
    const auto read = readBundle(bundle, secret(opens));
    ASSERT_TRUE(read) << read.status();
    const auto expected = kf::test::parsed(member(kind));
    EXPECT_EQ(read->leaf.der, member(kind).leaf);
    EXPECT_EQ(read->leaf.label, label);
    EXPECT_EQ(read->key.publicValue, expected.key.publicValue);
    EXPECT_EQ(read->key.privateValue, expected.key.privateValue);
    ASSERT_THAT(read->chain, SizeIs(2));
    EXPECT_EQ(read->chain[0].der, authority().issuer());
    EXPECT_EQ(read->chain[1].der, authority().root());
    EXPECT_EQ(readBundle(bundle, secret("wrong")).status(), errSecPkcs12VerifyFailure);
    EXPECT_EQ(readBundle(std::span(bundle).first(bundle.size() - 20), secret(opens)).status(), errSecDecode);
}

struct Making {
    const char* name;
    KeyKind key;
    const char* keyCipher;
    const char* certificateCipher = nullptr; ///< pk12util alone has two
};

std::string nameOf(const testing::TestParamInfo<Making>& parameter) { return parameter.param.name; }

class MadeByCerttool : public testing::TestWithParam<Making> { };

TEST_P(MadeByCerttool, IsReadWhole)
{
    const auto& bundle = member(GetParam().key);
    const auto path = [](const char* name) { return (authority().directory() / name).string(); };
    writeFile(path("all.pem"), mustRun({"cat", bundle.certFile, authority().issuerFile(), authority().rootFile()}));
    mustRun({"certtool", "--to-p12", "--load-privkey", bundle.keyFile, "--load-certificate", path("all.pem"),
        "--p12-name", "Ada at home", "--password", passphrase, "--pkcs-cipher", GetParam().keyCipher, "--outder",
        "--outfile", path("certtool.p12")});
    // certtool writes the bytes of other letters one by one.
    expectMember(readFile(path("certtool.p12")), passphrase, GetParam().key, "Ada at home");
}

INSTANTIATE_TEST_SUITE_P(Of, MadeByCerttool,
    testing::Values(Making{"RSAWithAES256", KeyKind::rsa2048, "aes-256"},
        Making{"ECWithAES128", KeyKind::p256, "aes-128"}, Making{"RSAWith3DES", KeyKind::rsa2048, "3des-pkcs12"},
        Making{"ECWith3DESOfPKCS5", KeyKind::p384, "3des"}, Making{"RSAWithRC2", KeyKind::rsa2048, "rc2-40"}),
    nameOf);

class MadeByPk12util : public testing::TestWithParam<Making> { };

TEST_P(MadeByPk12util, IsReadWhole)
{
    const auto& bundle = member(GetParam().key);
    const kf::test::ScratchHome home;
    const auto path = [&](const char* name) { return (home.path() / name).string(); };
    const std::string database = "sql:" + home.path().string();
    writeFile(path("import"), std::string(passphrase) + "\n");
    // pk12util reads its own pass phrase as Latin-1.
    writeFile(path("export"), "correct horse\n");
    mustRun({"timeout", "20", "certutil", "-N", "--empty-password", "-d", database});
    mustRun({"timeout", "20", "pk12util", "-i", bundle.file, "-d", database, "-w", path("import"), "-K", ""});
    mustRun({"timeout", "20", "pk12util", "-o", path("nss.p12"), "-n", friendlyName, "-d", database, "-w",
        path("export"), "-K", "", "-c", GetParam().keyCipher, "-C", GetParam().certificateCipher});
    expectMember(readFile(path("nss.p12")), "correct horse", GetParam().key);
}

INSTANTIATE_TEST_SUITE_P(Of, MadeByPk12util,
    testing::Values(Making{"RSAWithAES", KeyKind::rsa2048, "AES-256-CBC", "AES-128-CBC"},
        Making{"ECWithAES", KeyKind::p256, "AES-128-CBC", "AES-256-CBC"},
        Making{"RSALegacy", KeyKind::rsa2048, "PKCS #12 V2 PBE With SHA-1 And 3KEY Triple DES-CBC",
            "PKCS #12 V2 PBE With SHA-1 And 40 Bit RC2 CBC"},
        Making{"ECLegacy", KeyKind::p384, "PKCS #12 V2 PBE With SHA-1 And 3KEY Triple DES-CBC",
            "PKCS #12 V2 PBE With SHA-1 And 3KEY Triple DES-CBC"},
        Making{"CertificatesInTheClear", KeyKind::p256, "AES-128-CBC", "none"}),
    nameOf);

class MadeByOpenSSL : public testing::TestWithParam<Making> { };

TEST_P(MadeByOpenSSL, IsReadWhole)
{
    const auto& bundle = member(GetParam().key);
    const auto path = [](const char* name) { return (authority().directory() / name).string(); };
    writeFile(path("chain.pem"), mustRun({"cat", authority().issuerFile(), authority().rootFile()}));
    mustRun({"openssl", "pkcs12", "-export", "-legacy", "-inkey", bundle.keyFile, "-in", bundle.certFile, "-certfile",
        path("chain.pem"), "-name", friendlyName, "-passout", std::string("pass:") + passphrase, "-keypbe",
        GetParam().keyCipher, "-certpbe", GetParam().certificateCipher, "-out", path("openssl.p12")});
    expectMember(readFile(path("openssl.p12")), passphrase, GetParam().key);
}

INSTANTIATE_TEST_SUITE_P(Of, MadeByOpenSSL,
    testing::Values(Making{"RSAWithAES", KeyKind::rsa2048, "AES-256-CBC", "AES-256-CBC"},
        Making{"ECWithCamellia", KeyKind::p256, "CAMELLIA-256-CBC", "CAMELLIA-256-CBC"},
        Making{"RSALegacy", KeyKind::rsa2048, "PBE-SHA1-3DES", "PBE-SHA1-RC2-40"},
        Making{"ECLegacy", KeyKind::p521, "PBE-SHA1-3DES", "PBE-SHA1-3DES"}),
    nameOf);

} // namespace
