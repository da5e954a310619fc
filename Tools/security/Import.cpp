#include "Security/ScopedDescriptor.h"
#include "Security/ScopedOpenSSL.h"
#include "security/Commands.h"
#include "security/FileTools.h"
#include "security/Passphrase.h"
#include "security/Search.h"
#include "security/Text.h"
#include "security/TrustedCertificate.h"
#include "security/WritableKeychain.h"

#include <cerrno>
#include <fcntl.h>
#include <iostream>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kf::security {

namespace {

/// What the platform takes of a bundle.
constexpr std::size_t sizeLimit = std::size_t{16} << 20U;

/// A file's bytes, which may be a private key's, or why there are none.
struct InputFile {
    SecretBytes bytes;
    std::string error;
};

InputFile readInput(const std::string& path)
{
    const ScopedDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat status = {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0)
        return {{}, errorText(errno)};
    if (!S_ISREG(status.st_mode))
        return {{}, "is not a regular file"};
    if (static_cast<std::uint64_t>(status.st_size) > sizeLimit)
        return {{}, "is larger than 16 MiB"};
    SecretBytes bytes(static_cast<std::size_t>(status.st_size));
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t count = ::read(file.get(), bytes.data() + length, bytes.size() - length);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return {{}, errorText(errno)};
        if (count == 0)
            break;
        length += static_cast<std::size_t>(count);
    }
    bytes.resize(length);
    return {std::move(bytes), {}};
}

std::string_view textOf(const SecretBytes& bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// Whether DER is a private key without a certificate, encrypted or not.
bool isPrivateKey(const SecretBytes& der)
{
    const OpenSSLErrorMark mark;
    const auto length = static_cast<long>(der.size());
    const unsigned char* position = der.data();
    if (const ScopedEVP_PKEY key(d2i_AutoPrivateKey(nullptr, &position, length)); key)
        return true;
    position = der.data();
    return std::unique_ptr<X509_SIG, OpenSSLDeleter<X509_SIG_free>>(d2i_X509_SIG(nullptr, &position, length))
        != nullptr;
}

constexpr const char* keyAlone = "holds a private key that is not in a PKCS#12 bundle. Make a bundle of the key and "
                                 "its certificate, and import that.";

/// The certificates of a PEM text (RFC 7468), or what is wrong with it.
struct PEMCertificates {
    std::vector<Bytes> certificates;
    std::string error;
};

PEMCertificates readPEM(std::string_view text)
{
    const OpenSSLErrorMark mark;
    PEMCertificates read;
    if (text.find("PRIVATE KEY-----") != text.npos)
        return {{}, keyAlone};
    const ScopedBIOChain memory(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    if (!memory)
        throw std::bad_alloc();
    for (;;) {
        char* name = nullptr;
        char* header = nullptr;
        unsigned char* data = nullptr;
        long length = 0;
        if (PEM_read_bio(memory.get(), &name, &header, &data, &length) != 1)
            break;
        const ScopedOpenSSLText nameOwner(name);
        const ScopedOpenSSLText headerOwner(header);
        const ScopedOpenSSLBytes dataOwner(data);
        if (std::string_view(name) != "CERTIFICATE")
            return {{}, "holds something besides certificates: " + printable(name)};
        Bytes der(data, data + length);
        if (!readCertificateFields(der))
            return {{}, "holds a damaged certificate"};
        read.certificates.push_back(std::move(der));
    }
    if (ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE)
        return {{}, "holds a damaged certificate"};
    return read;
}

bool importCertificate(const Bytes& der, const SecKeychainRef& keychain)
{
    const SecCertificateRef certificate = certificateFrom(der);
    const OSStatus status = SecCertificateAddToKeychain(certificate, keychain);
    const std::string shown =
        "\"" + printable(readCertificateFields(der)->label) + "\", SHA-256 " + sha256Of(certificate);
    if (status != errSecSuccess && status != errSecDuplicateItem) {
        complain(keychain->path(), "the certificate " + shown + " was not imported: " + statusText(status));
        return false;
    }
    std::cout << printable(keychain->path())
              << (status == errSecSuccess ? ": imported the certificate " : ": had the certificate already, ") << shown
              << std::endl;
    return true;
}

int importCertificates(const std::vector<Bytes>& certificates, const SecKeychainRef& keychain)
{
    bool areAllThere = true;
    for (const Bytes& der : certificates)
        areAllThere &= importCertificate(der, keychain);
    return areAllThere ? exitSuccess : exitFailure;
}

void tell(const Ref<NSArray>& items, const SecKeychainRef& keychain)
{
    for (const auto& item : *items) {
        const auto identity = refCast<SecIdentity>(item);
        const SecCertificateRef certificate = identity ? identity->certificate() : refCast<SecCertificate>(item);
        std::cout << printable(keychain->path()) << ": holds the " << (identity ? "identity" : "certificate") << " \""
                  << printable(labelOf(certificate)) << "\", SHA-256 " << sha256Of(certificate) << std::endl;
    }
}

int importBundle(
    const Arguments& arguments, const std::string& path, const SecretBytes& bytes, const SecKeychainRef& keychain)
{
    const Passphrase passphrase = readPassphrase(arguments, "Pass phrase of " + printable(path) + ": ");
    if (!passphrase.text) {
        complain("import", passphrase.error);
        return exitFailure;
    }
    SecKeyImportExportParameters parameters;
    parameters.passphrase = passphrase.text;
    parameters.keyUsage = CSSM_KEYUSE_ANY;
    parameters.keyAttributes = CSSM_KEYATTR_SENSITIVE | (arguments.has('x') ? 0 : CSSM_KEYATTR_EXTRACTABLE);
    Ref<NSArray> items;
    const OSStatus status = SecKeychainItemImport(
        NSData::dataWithBytes(bytes), nullptr, nullptr, nullptr, 0, &parameters, keychain, &items);
    if (status != errSecSuccess) {
        complain(path, status);
        return exitFailure;
    }
    tell(items, keychain);
    return exitSuccess;
}

SecKeychainRef targetOf(const Arguments& arguments)
{
    SecKeychainRef keychain;
    const auto path = arguments.value('k');
    const OSStatus status = path ? SecKeychainOpen(path->c_str(), &keychain) : SecKeychainCopyDefault(&keychain);
    if (status == errSecSuccess)
        return keychain;
    complain(path ? *path : defaultKeychainName, status);
    return nullptr;
}

} // namespace

int importFile(const Arguments& arguments)
{
    if (arguments.operands.size() != 1)
        return wrongUse("import", "needs exactly one file");
    if (const std::string error = whyNotPassphraseOptions(arguments); !error.empty())
        return wrongUse("import", error);
    const std::string& path = arguments.operands[0];
    const InputFile input = readInput(path);
    const auto refuse = [&](const std::string& error) {
        complain(path, error);
        return exitFailure;
    };
    if (!input.error.empty())
        return refuse(input.error);
    const SecKeychainRef keychain = targetOf(arguments);
    if (!keychain || !requireWritable(keychain))
        return exitFailure;
    if (readCertificateFields(input.bytes))
        return importCertificates({Bytes(input.bytes.begin(), input.bytes.end())}, keychain);
    if (textOf(input.bytes).find("-----BEGIN ") != std::string_view::npos) {
        const PEMCertificates read = readPEM(textOf(input.bytes));
        return read.error.empty() ? importCertificates(read.certificates, keychain) : refuse(read.error);
    }
    if (isPrivateKey(input.bytes))
        return refuse(keyAlone);
    return importBundle(arguments, path, input.bytes, keychain);
}

} // namespace kf::security
