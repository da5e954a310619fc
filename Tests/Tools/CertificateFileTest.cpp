// What the tool reads, and what it accepts as an authority.

#include "security/CertificateFile.h"
#include "Security/ScopedDescriptor.h"
#include "Tests/Support/Fixtures.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using kf::security::readCertificateFile;
using kf::security::whyNotAdmissible;
using kf::test::Authority;
using kf::test::Bytes;
using kf::test::mustRun;
using kf::test::readFile;
using kf::test::writeFile;

class CertificateFileTest : public ::testing::Test {
protected:
    static Authority& authority()
    {
        static Authority authority;
        return authority;
    }
    fs::path path(const std::string& name) const { return authority().directory() / name; }
    std::string errorOf(const fs::path& file) const
    {
        const auto read = readCertificateFile(file);
        EXPECT_NE(read.der.has_value(), !read.error.empty());
        return read.error;
    }
    std::string text(const fs::path& file) const
    {
        const Bytes bytes = readFile(file);
        return std::string(bytes.begin(), bytes.end());
    }

    Bytes selfSigned(
        const std::vector<std::string>& key, const std::string& constraints, const std::string& days = "30")
    {
        std::vector<std::string> command = {"openssl", "req", "-x509", "-new", "-subj", "/CN=Self", "-nodes", "-keyout",
            "/dev/null", "-addext", "basicConstraints=" + constraints, "-days", days, "-outform", "DER", "-out",
            path("self.der")};
        command.insert(command.end(), key.begin(), key.end());
        mustRun(command);
        return readFile(path("self.der"));
    }
};

TEST_F(CertificateFileTest, ReadsDERAndPEM)
{
    const Bytes root = authority().root();
    EXPECT_EQ(readCertificateFile(path("root.der")).der, root);
    EXPECT_EQ(readCertificateFile(path("root.pem")).der, root);
    writeFile(path("explained.pem"), "What follows is our root.\n\n" + text(path("root.pem")) + "\nThat was it.\n");
    EXPECT_EQ(readCertificateFile(path("explained.pem")).der, root);
}

TEST_F(CertificateFileTest, RefusesWhatIsNotOneCertificate)
{
    const std::string pem = text(path("root.pem"));
    writeFile(path("two.pem"), pem + text(path("issuer.pem")));
    EXPECT_EQ(errorOf(path("two.pem")), "holds more than one certificate");
    writeFile(path("key-and-cert.pem"), pem + text(path("root.key")));
    EXPECT_EQ(errorOf(path("key-and-cert.pem")), "holds more than a certificate");
    EXPECT_EQ(errorOf(path("root.key")), "holds no certificate (neither DER nor PEM)");
    writeFile(path("empty"), std::string_view());
    EXPECT_EQ(errorOf(path("empty")), "holds no certificate (neither DER nor PEM)");
    writeFile(path("damaged.pem"), pem.substr(0, pem.size() / 2) + "\n-----END CERTIFICATE-----\n");
    EXPECT_EQ(errorOf(path("damaged.pem")), "holds a damaged certificate");
    writeFile(path("unended.pem"), pem.substr(0, pem.size() / 2));
    EXPECT_EQ(errorOf(path("unended.pem")), "holds a damaged certificate");
    Bytes followed = authority().root();
    followed.push_back(0);
    writeFile(path("followed.der"), std::span<const std::uint8_t>(followed));
    EXPECT_EQ(errorOf(path("followed.der")), "holds no certificate (neither DER nor PEM)");
}

TEST_F(CertificateFileTest, RefusesFilesThatAreNone)
{
    EXPECT_EQ(errorOf(path("missing")), "No such file or directory");
    EXPECT_EQ(errorOf(authority().directory()), "is not a regular file");
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(errorOf(path("pipe")), "is not a regular file") << "and does not wait for a writer";
    EXPECT_EQ(errorOf("/dev/zero"), "is not a regular file");
}

TEST_F(CertificateFileTest, ASizeLimitHolds)
{
    const std::string pem = text(path("root.pem"));
    const std::size_t limit = 64UL * 1024;
    writeFile(path("full.pem"), pem + std::string(limit - pem.size(), '\n'));
    EXPECT_EQ(errorOf(path("full.pem")), "");
    writeFile(path("large.pem"), pem + std::string(limit - pem.size() + 1, '\n'));
    EXPECT_EQ(errorOf(path("large.pem")), "is larger than 64 KiB");
}

TEST_F(CertificateFileTest, RootFollowsNoLink)
{
    fs::create_symlink(path("root.der"), path("link.der"));
    EXPECT_EQ(errorOf(path("link.der")), ::geteuid() == 0 ? "is a symbolic link" : "");
}

TEST_F(CertificateFileTest, ReadsADescriptorThatItWasStartedWith)
{
    const kf::ScopedDescriptor file(::open(path("root.der").c_str(), O_RDONLY));
    const std::string name = "/dev/fd/" + std::to_string(file.get());
    EXPECT_EQ(readCertificateFile(name).der, authority().root());
    EXPECT_NE(errorOf("/dev/fd/"), "");
    EXPECT_NE(errorOf("/dev/fd/1000"), "") << "one that is not open";
    const std::string process = "/proc/self/fd/" + std::to_string(file.get());
    EXPECT_EQ(errorOf(process), ::geteuid() == 0 ? "is a symbolic link" : "") << "no other link of that kind";
}

TEST_F(CertificateFileTest, AcceptsARoot)
{
    EXPECT_EQ(whyNotAdmissible(authority().root()), "");
    EXPECT_EQ(whyNotAdmissible(selfSigned({"-newkey", "rsa:2048"}, "critical,CA:TRUE")), "");
}

TEST_F(CertificateFileTest, TellsWhyACertificateIsNoAuthorityToTrust)
{
    EXPECT_EQ(whyNotAdmissible(authority().issue().leaf), "is not the certificate of an authority");
    EXPECT_EQ(
        whyNotAdmissible(selfSigned({"-newkey", "rsa:2048"}, "CA:FALSE")), "is not the certificate of an authority");
    EXPECT_EQ(whyNotAdmissible(selfSigned({"-newkey", "rsa:1024"}, "critical,CA:TRUE")),
        "has an RSA key of 1024 bits; at least 2048 are needed");
    EXPECT_EQ(
        whyNotAdmissible(selfSigned({"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime192v1"}, "critical,CA:TRUE")),
        "has a key of 192 bits, which is too short for its kind");
    EXPECT_EQ(whyNotAdmissible(authority().issuer()), "is not a root certificate: it did not sign itself");
    EXPECT_EQ(whyNotAdmissible({0x30, 0x00}), "holds a damaged certificate");
}

TEST_F(CertificateFileTest, TellsWhenAnAuthorityExpired)
{
    writeFile(path("self.ext"), std::string_view("basicConstraints=critical,CA:TRUE\n"));
    mustRun({"openssl", "req", "-new", "-subj", "/CN=Old", "-key", path("root.key"), "-out", path("old.csr")});
    writeFile(path("old.cnf"),
        "[ca]\ndatabase=" + path("old.index").string() + "\nserial=" + path("old.serial").string()
            + "\nrand_serial=yes\nnew_certs_dir=" + authority().directory().string()
            + "\ndefault_md=sha256\npolicy=any\n[any]\ncommonName=optional\n");
    writeFile(path("old.index"), std::string_view());
    const auto whyNot = [this](const std::string& start, const std::string& end) {
        mustRun({"openssl", "ca", "-batch", "-notext", "-selfsign", "-config", path("old.cnf"), "-name", "ca",
            "-keyfile", path("root.key"), "-in", path("old.csr"), "-extfile", path("self.ext"), "-startdate", start,
            "-enddate", end, "-out", path("old.pem")});
        const auto file = readCertificateFile(path("old.pem"));
        EXPECT_TRUE(file.der);
        return file.der ? whyNotAdmissible(*file.der) : std::string();
    };
    EXPECT_EQ(whyNot("20100101000000Z", "20200229120000Z"), "expired on 2020-02-29");
    writeFile(path("old.index"), std::string_view());
    EXPECT_EQ(whyNot("20860101000000Z", "20960101000000Z"), "is not valid before 2086-01-01");
}

} // namespace
