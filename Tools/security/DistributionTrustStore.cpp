#include "security/DistributionTrustStore.h"

#include "Security/ScopedOpenSSL.h"
#include "security/CertificateFile.h"
#include "security/FileTools.h"
#include "security/RunCommand.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <openssl/pem.h>
#include <set>
#include <sstream>
#include <unistd.h>

namespace kf::security {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t anchorSizeLimit = 256UL * 1024;

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

/// The digests of every certificate in a bundle.
std::set<std::string> digestsOf(const std::string& path)
{
    const OpenSSLErrorMark mark;
    std::set<std::string> digests;
    const ScopedBIOChain bundle(BIO_new_file(path.c_str(), "rb"));
    for (Bytes der = bundle ? nextCertificate(bundle.get()) : Bytes(); !der.empty();
         der = nextCertificate(bundle.get()))
        digests.insert(digestText(der));
    return digests;
}

/// The words of a value of os-release, without its quotes.
std::vector<std::string> wordsOf(std::string_view osRelease, const std::string& key)
{
    std::istringstream lines{std::string(osRelease)};
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with(key + "="))
            continue;
        std::string value = line.substr(key.size() + 1);
        std::erase_if(value, [](char character) { return character == '"' || character == '\''; });
        std::istringstream words(value);
        return {std::istream_iterator<std::string>(words), {}};
    }
    return {};
}

struct Family {
    std::vector<std::string> names; ///< in ID or ID_LIKE
    DistributionTrustStore::Layout layout;
};

const std::vector<Family>& families()
{
    static const std::vector<Family> table = {
        {{"debian", "ubuntu"},
            {.anchors = "/usr/local/share/ca-certificates",
                .suffix = ".crt",
                .bundle = "/etc/ssl/certs/ca-certificates.crt",
                .command = {"/usr/sbin/update-ca-certificates"},
                .hashedDirectory = "/etc/ssl/certs"}},
        {{"fedora", "rhel", "centos"},
            {.anchors = "/etc/pki/ca-trust/source/anchors",
                .suffix = ".pem",
                .bundle = "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",
                .command = {"/usr/bin/update-ca-trust", "extract"},
                .hashedDirectory = {}}},
        {{"arch"},
            {.anchors = "/etc/ca-certificates/trust-source/anchors",
                .suffix = ".crt",
                .bundle = "/etc/ca-certificates/extracted/tls-ca-bundle.pem",
                .command = {"/usr/bin/update-ca-trust"},
                .hashedDirectory = {}}},
        {{"opensuse", "suse", "sles"},
            {.anchors = "/etc/pki/trust/anchors",
                .suffix = ".pem",
                .bundle = "/var/lib/ca-certificates/ca-bundle.pem",
                .command = {"/usr/sbin/update-ca-certificates"},
                .hashedDirectory = {}}},
    };
    return table;
}

} // namespace

std::optional<DistributionTrustStore::Layout> layoutFor(std::string_view osRelease)
{
    // A distribution's own name says more than those of its kin.
    for (const char* key : {"ID", "ID_LIKE"}) {
        for (const std::string& word : wordsOf(osRelease, key)) {
            for (const Family& family : families()) {
                if (std::ranges::find(family.names, word) != family.names.end())
                    return family.layout;
            }
        }
    }
    return std::nullopt;
}

std::optional<DistributionTrustStore::Layout> distributionLayout()
{
    constexpr std::size_t sizeLimit = 64UL * 1024;
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        if (const FileContent content = readFile(path, sizeLimit, true); content.text)
            return layoutFor(*content.text);
    }
    return std::nullopt;
}

DistributionTrustStore::DistributionTrustStore(std::optional<Layout> layout) : layout_(std::move(layout)) { }

std::string DistributionTrustStore::anchorPath(const Bytes& certificate) const
{
    return layout_->anchors + "/" + publishedName(certificate) + layout_->suffix;
}

bool DistributionTrustStore::bundleHolds(const Bytes& certificate) const
{
    return digestsOf(layout_->bundle).contains(digestText(certificate));
}

/// Runs the command; gives what went wrong.
std::string DistributionTrustStore::update() const
{
    const CommandResult result = runCommand(layout_->command);
    if (result.exitStatus == 0)
        return {};
    return layout_->command[0] + " failed (" + std::to_string(result.exitStatus) + "): " + result.output;
}

Outcome DistributionTrustStore::add(const Bytes& certificate)
{
    if (!layout_)
        return failed("this distribution's is not known");
    const FileLock lock(layout_->lock, layout_->patience);
    if (!lock.isHeld())
        return failed("another program keeps it locked (" + layout_->lock + ")");
    const std::string anchor = anchorPath(certificate);
    const std::string text = pemText(certificate);
    const bool isThere = readFile(anchor, anchorSizeLimit).text == text;
    if (isThere && bundleHolds(certificate))
        return unchanged("was there already (" + anchor + ")");
    if (const std::string error = writeFileAtomically(anchor, text, 0644); !error.empty()) {
        if (!isThere)
            ::unlink(anchor.c_str());
        return failed(error);
    }
    const std::string error = update();
    // Its hooks may fail although the store itself is right.
    if (bundleHolds(certificate))
        return done("installed (" + anchor + ")");
    if (!isThere)
        ::unlink(anchor.c_str()); // or a later run of the command would trust it after all
    return failed(error.empty() ? layout_->command[0] + " left the certificate out" : error);
}

void DistributionTrustStore::removeLinks(const std::string& anchor) const
{
    if (layout_->hashedDirectory.empty())
        return;
    const std::string pemName = fs::path(anchor).stem().string() + ".pem";
    const fs::path pem = fs::path(layout_->hashedDirectory) / pemName;
    std::error_code error;
    std::vector<fs::path> links;
    for (const auto& entry : fs::directory_iterator(layout_->hashedDirectory, error)) {
        if (entry.is_symlink() && isHashLink(entry.path()) && fs::read_symlink(entry.path(), error) == pemName)
            links.push_back(entry.path());
    }
    for (const fs::path& link : links)
        removeHashLink(link);
    if (fs::is_symlink(pem, error) && fs::read_symlink(pem, error) == anchor)
        fs::remove(pem, error);
}

Outcome DistributionTrustStore::remove(const Bytes& certificate)
{
    if (!layout_)
        return notPresent();
    const FileLock lock(layout_->lock, layout_->patience);
    if (!lock.isHeld())
        return failed("another program keeps it locked (" + layout_->lock + ")");
    const std::string anchor = anchorPath(certificate);
    std::error_code ignored;
    const bool isThere = fs::exists(fs::symlink_status(anchor, ignored));
    if (const std::string error = removeFile(anchor); !error.empty())
        return failed(error);
    // A removal that ended early may have left it in the bundle.
    if (!isThere && !bundleHolds(certificate))
        return unchanged("was not there");
    const std::string error = update();
    removeLinks(anchor);
    if (!bundleHolds(certificate))
        return done("removed (" + anchor + ")");
    return failed(error.empty() ? "the certificate is still in " + layout_->bundle + ", from another source" : error);
}

/// The anchors that are there, and those that links tell of after a removal that ended early.
std::set<std::string> DistributionTrustStore::ourAnchors() const
{
    std::set<std::string> anchors;
    std::error_code ignored;
    const auto isOurs = [](const fs::path& path) { return path.filename().string().starts_with(publishedPrefix); };
    for (const auto& entry : fs::directory_iterator(layout_->anchors, ignored)) {
        if (isOurs(entry.path()) && entry.path().extension() == layout_->suffix)
            anchors.insert(entry.path());
    }
    for (const auto& entry : fs::directory_iterator(layout_->hashedDirectory, ignored)) {
        const fs::path target = fs::read_symlink(entry.path(), ignored);
        if (isOurs(target) && target.parent_path() == layout_->anchors)
            anchors.insert(target);
    }
    return anchors;
}

/// What the command would do; gives what went wrong.
std::string DistributionTrustStore::eraseFromBundle(const std::vector<Bytes>& certificates) const
{
    constexpr std::size_t bundleSizeLimit = 16 * 1024 * 1024;
    FileContent bundle = readFile(layout_->bundle, bundleSizeLimit);
    if (!bundle.text)
        return bundle.isMissing ? std::string() : layout_->bundle + ": " + bundle.error;
    const std::string before = *bundle.text;
    for (const Bytes& certificate : certificates) {
        const std::string text = pemText(certificate);
        if (const auto place = bundle.text->find(text); place != std::string::npos)
            bundle.text->erase(place, text.size());
    }
    return *bundle.text == before ? std::string() : writeFileAtomically(layout_->bundle, *bundle.text, 0644);
}

Outcome DistributionTrustStore::removeAll()
{
    if (!layout_)
        return notPresent();
    const FileLock lock(layout_->lock, layout_->patience);
    if (!lock.isHeld())
        return failed("another program keeps it locked (" + layout_->lock + ")");
    const std::set<std::string> anchors = ourAnchors();
    if (anchors.empty())
        return unchanged("was not there");
    std::vector<Bytes> certificates;
    for (const std::string& anchor : anchors) {
        if (const auto certificate = readCertificateFile(anchor).der)
            certificates.push_back(*certificate);
        if (const std::string error = removeFile(anchor); !error.empty())
            return failed(error);
    }
    std::error_code ignored;
    const std::string error = fs::exists(layout_->command[0], ignored) ? update() : eraseFromBundle(certificates);
    std::ranges::for_each(anchors, [&](const std::string& anchor) { removeLinks(anchor); });
    if (std::ranges::none_of(certificates, [&](const Bytes& certificate) { return bundleHolds(certificate); }))
        return done("removed");
    return failed(error.empty() ? "a certificate is still in " + layout_->bundle + ", from another source" : error);
}

PlaceStatus DistributionTrustStore::status() const
{
    PlaceStatus status;
    if (!layout_) {
        status.kind = PlaceStatus::Kind::notPresent;
        status.text = "this distribution's is not known";
        return status;
    }
    status.others = digestsOf(layout_->bundle);
    if (status.others.empty()) {
        status.kind = PlaceStatus::Kind::failed;
        status.text = "no certificate can be read from " + layout_->bundle;
    }
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(layout_->anchors, ignored)) {
        const std::string name = entry.path().filename().string();
        if (!name.starts_with(publishedPrefix) || !name.ends_with(layout_->suffix))
            continue;
        const CertificateFile file = readCertificateFile(entry.path());
        const auto fields = file.der ? readCertificateFields(*file.der) : Failure{errSecUnknownFormat};
        if (fields && status.others.erase(digestText(*file.der)) == 1)
            status.certificates.push_back({digestText(*file.der), fields->label});
        else
            status.text += (status.text.empty() ? "" : "; ") + name + " has no effect";
    }
    std::ranges::sort(status.certificates, {}, &HeldCertificate::digest);
    return status;
}

} // namespace kf::security
