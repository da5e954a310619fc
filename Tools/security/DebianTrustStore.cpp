#include "security/DebianTrustStore.h"

#include "Security/ScopedOpenSSL.h"
#include "security/CertificateFile.h"
#include "security/FileTools.h"
#include "security/RunCommand.h"

#include <filesystem>
#include <openssl/pem.h>
#include <unistd.h>
#include <vector>

namespace kf::security {

namespace fs = std::filesystem;

namespace {

/// The text in lower case with a hyphen for each run of anything but letters and digits.
std::string slug(const std::string& text)
{
    constexpr std::size_t lengthLimit = 40;
    std::string result;
    for (const char character : text) {
        const bool isUpper = character >= 'A' && character <= 'Z';
        const bool isLower = character >= 'a' && character <= 'z';
        const bool isDigit = character >= '0' && character <= '9';
        if (isUpper)
            result += static_cast<char>(character - 'A' + 'a');
        else if (isLower || isDigit)
            result += character;
        else if (!result.empty() && result.back() != '-')
            result += '-';
        if (result.size() == lengthLimit)
            break;
    }
    while (!result.empty() && result.back() == '-')
        result.pop_back();
    return result.empty() ? "authority" : result;
}

std::string pemText(const Bytes& der)
{
    const ScopedBIOChain memory(BIO_new(BIO_s_mem()));
    if (!memory || PEM_write_bio(memory.get(), PEM_STRING_X509, "", der.data(), static_cast<long>(der.size())) <= 0)
        throw std::bad_alloc();
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return std::string(text, static_cast<std::size_t>(length));
}

/// Reads DER from the blocks of a bundle, one after the other.
Bytes nextCertificate(BIO* bundle)
{
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    if (PEM_read_bio(bundle, &name, &header, &data, &length) != 1)
        return {};
    const ScopedOpenSSLBytes nameOwner(reinterpret_cast<unsigned char*>(name));
    const ScopedOpenSSLBytes headerOwner(reinterpret_cast<unsigned char*>(header));
    const ScopedOpenSSLBytes dataOwner(data);
    return Bytes(data, data + length);
}

/// Removes a link of a hashed directory ("1a2b3c4d.0") and closes the gap that
/// it leaves: lookups stop at the first number that is missing.
void removeHashLink(const fs::path& link)
{
    const std::string hash = link.stem().string();
    const auto numbered = [&](int number) { return link.parent_path() / (hash + "." + std::to_string(number)); };
    std::error_code ignored;
    fs::remove(link, ignored);
    int last = std::stoi(link.extension().string().substr(1));
    while (fs::is_symlink(numbered(last + 1), ignored))
        ++last;
    if (numbered(last) != link)
        fs::rename(numbered(last), link, ignored);
}

bool isHashLink(const fs::path& path)
{
    const std::string name = path.filename().string();
    constexpr std::string_view digits = "0123456789";
    return name.size() > 9 && name[8] == '.' && name.find_first_not_of("0123456789abcdef") == 8
        && name.find_first_not_of(digits, 9) == name.npos;
}

} // namespace

DebianTrustStore::DebianTrustStore(Places places) : places_(std::move(places)) { }

bool DebianTrustStore::isHere()
{
    const Places places;
    return ::access(places.command.c_str(), X_OK) == 0 && fs::is_directory(places.hashedDirectory);
}

std::string DebianTrustStore::anchorPath(const Bytes& certificate) const
{
    const auto fields = readCertificateFields(certificate);
    constexpr std::size_t digestDigits = 32;
    return places_.anchors + "/keyfold-" + slug(fields ? fields->label : std::string()) + "-"
        + digestText(certificate).substr(0, digestDigits) + ".crt";
}

bool DebianTrustStore::bundleHolds(const Bytes& certificate) const
{
    const OpenSSLErrorMark mark;
    const ScopedBIOChain bundle(BIO_new_file(places_.bundle.c_str(), "rb"));
    if (!bundle)
        return false;
    for (Bytes der = nextCertificate(bundle.get()); !der.empty(); der = nextCertificate(bundle.get())) {
        if (der == certificate)
            return true;
    }
    return false;
}

Outcome DebianTrustStore::update() const
{
    const CommandResult result = runCommand({places_.command});
    if (result.exitStatus == 0)
        return {true, {}};
    return {false, places_.command + " failed (" + std::to_string(result.exitStatus) + "): " + result.output};
}

Outcome DebianTrustStore::add(const Bytes& certificate)
{
    const FileLock lock(places_.lock, places_.patience);
    if (!lock.isHeld())
        return {false, "another program keeps it locked (" + places_.lock + ")"};
    const std::string anchor = anchorPath(certificate);
    const std::string text = pemText(certificate);
    const bool isThere = readTextFile(anchor) == text;
    if (isThere && bundleHolds(certificate))
        return {true, "was there already (" + anchor + ")"};
    if (const std::string error = writeFileAtomically(anchor, text, 0644); !error.empty())
        return {false, error};
    const Outcome updated = update();
    // Its hooks may fail although the store itself is right.
    if (bundleHolds(certificate))
        return {true, "installed (" + anchor + ")"};
    if (!isThere)
        ::unlink(anchor.c_str()); // or a later run of the command would trust it after all
    return {false, updated.succeeded ? places_.command + " left the certificate out" : updated.text};
}

void DebianTrustStore::removeLinks(const std::string& anchor) const
{
    const std::string pemName = fs::path(anchor).stem().string() + ".pem";
    const fs::path pem = fs::path(places_.hashedDirectory) / pemName;
    std::error_code error;
    std::vector<fs::path> links;
    for (const auto& entry : fs::directory_iterator(places_.hashedDirectory, error)) {
        if (entry.is_symlink() && isHashLink(entry.path()) && fs::read_symlink(entry.path(), error) == pemName)
            links.push_back(entry.path());
    }
    for (const fs::path& link : links)
        removeHashLink(link);
    if (fs::is_symlink(pem, error) && fs::read_symlink(pem, error) == anchor)
        fs::remove(pem, error);
}

Outcome DebianTrustStore::remove(const Bytes& certificate)
{
    const FileLock lock(places_.lock, places_.patience);
    if (!lock.isHeld())
        return {false, "another program keeps it locked (" + places_.lock + ")"};
    const std::string anchor = anchorPath(certificate);
    if (::unlink(anchor.c_str()) != 0) {
        if (errno != ENOENT)
            return {false, "cannot delete " + anchor + ": " + errorText(errno)};
        // A removal that ended early may have left it in the bundle.
        if (!bundleHolds(certificate))
            return {true, "was not there"};
    }
    const Outcome updated = update();
    removeLinks(anchor);
    if (!bundleHolds(certificate))
        return {true, "removed (" + anchor + ")"};
    return {false,
        updated.succeeded ? "the certificate is still in " + places_.bundle + ", from another source" : updated.text};
}

} // namespace kf::security
