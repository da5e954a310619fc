// Certificates of odd kinds, made by the openssl and certtool programs.
#pragma once

#include "Security/SecCertificate.h"
#include "Tests/Support/Fixtures.h"

namespace kf::test {

/// A directory with a key in which certificates are made, removed when it goes.
class CertificateMaker {
public:
    explicit CertificateMaker(
        std::vector<std::string> keyOptions = {"-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256"})
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "keyfold-cert-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::system_error(errno, std::generic_category(), "mkdtemp");
        directory_ = pattern;
        std::vector<std::string> command = {"openssl", "genpkey", "-out", path("key.pem")};
        command.insert(command.end(), keyOptions.begin(), keyOptions.end());
        mustRun(command);
    }
    ~CertificateMaker()
    {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    CertificateMaker(const CertificateMaker&) = delete;
    CertificateMaker& operator=(const CertificateMaker&) = delete;

    std::string path(const std::string& name) const { return (directory_ / name).string(); }

    /// A self-signed certificate of openssl's with this subject; `stringMask`
    /// chooses the string types, as openssl.cnf's string_mask does.
    Bytes openssl(
        const std::string& subject, std::vector<std::string> options = {}, const std::string& stringMask = "utf8only")
    {
        writeFile(path("openssl.cnf"),
            "oid_section=oids\n[oids]\ncollectiveST=2.5.4.8.1\n[req]\ndistinguished_name=dn\nstring_mask=" + stringMask
                + "\n[dn]\n");
        std::vector<std::string> command = {"openssl", "req", "-x509", "-utf8", "-config", path("openssl.cnf"), "-key",
            path("key.pem"), "-subj", subject, "-outform", "DER", "-out", path("certificate.der")};
        command.insert(command.end(), options.begin(), options.end());
        mustRun(command);
        return readFile(path("certificate.der"));
    }

    /// A self-signed certificate of certtool's from a template.
    Bytes certtool(const std::string& templateText)
    {
        writeFile(path("template"), templateText);
        mustRun({"certtool", "--generate-self-signed", "--load-privkey", path("key.pem"), "--template",
            path("template"), "--outder", "--outfile", path("certificate.der")});
        return readFile(path("certificate.der"));
    }

private:
    std::filesystem::path directory_;
};

inline SecCertificateRef certificateFromDer(const Bytes& der)
{
    const CSSM_DATA data{der.size(), const_cast<std::uint8_t*>(der.data())};
    SecCertificateRef certificate;
    if (SecCertificateCreateFromData(&data, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &certificate) != errSecSuccess)
        throw std::runtime_error("not taken for a certificate");
    return certificate;
}

} // namespace kf::test
