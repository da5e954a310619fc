#include "Security/Trust/DistributionStore.h"

#include "Security/Certificate/DERReader.h"
#include "Security/Certificate/LibraryContext.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <openssl/pem.h>
#include <set>
#include <utility>

namespace kf::trust {

namespace {

/// The eight digits that begin the file names of a subject; empty where it is no name.
std::string hashOf(std::span<const std::uint8_t> subject)
{
    const unsigned char* position = subject.data();
    const ScopedX509_NAME name(d2i_X509_NAME(nullptr, &position, static_cast<long>(subject.size())));
    int valid = 0;
    const unsigned long hash = name ? X509_NAME_hash_ex(name.get(), libraryContext(), nullptr, &valid) : 0;
    if (valid != 1)
        return {};
    char text[9];
    std::snprintf(text, sizeof text, "%08lx", hash & 0xFFFFFFFFUL);
    return text;
}

/// The first certificate of a PEM file; empty where it holds none.
Bytes readCertificate(BIO* file)
{
    unsigned char* bytes = nullptr;
    long length = 0;
    if (PEM_bytes_read_bio(&bytes, &length, nullptr, PEM_STRING_X509_TRUSTED, file, nullptr, nullptr) != 1)
        return {};
    const ScopedOpenSSLBytes owner(bytes);
    // What OpenSSL calls a trusted certificate has more behind it.
    const auto certificate = DERReader({bytes, static_cast<std::size_t>(length)}).next(der::sequence);
    return certificate ? Bytes(certificate->whole.begin(), certificate->whole.end()) : Bytes();
}

std::mutex mutex;
std::shared_ptr<const DistributionStore>& chosenStore()
{
    static std::shared_ptr<const DistributionStore> store;
    return store;
}

} // namespace

DistributionStore::~DistributionStore() = default;

HashedDirectoryStore::HashedDirectoryStore(std::string directory) : directory_(std::move(directory)) { }

std::vector<Bytes> HashedDirectoryStore::certificatesWithSubject(std::span<const std::uint8_t> subject) const
{
    const OpenSSLErrorMark mark;
    std::vector<Bytes> found;
    const std::string hash = hashOf(subject);
    if (hash.empty())
        return found;
    // Names with one hash are numbered without a gap.
    for (int number = 0;; ++number) {
        const std::string path = directory_ + "/" + hash + "." + std::to_string(number);
        const ScopedBIOChain file(BIO_new_file(path.c_str(), "rb"));
        if (!file)
            return found;
        Bytes der = readCertificate(file.get());
        const auto fields = readCertificateFields(der);
        if (fields && std::ranges::equal(fields->subject, subject))
            found.push_back(std::move(der));
    }
}

std::vector<Bytes> HashedDirectoryStore::certificates() const
{
    const OpenSSLErrorMark mark;
    const auto isHashed = [](const std::string& name) {
        constexpr std::size_t digits = 8;
        return name.size() > digits + 1 && name[digits] == '.' && name.find_first_not_of("0123456789abcdef") == digits
            && name.find_first_not_of("0123456789", digits + 1) == name.npos;
    };
    std::set<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory_, error), end; !error && entry != end;
         entry.increment(error))
        if (const std::string name = entry->path().filename(); isHashed(name))
            names.insert(name);
    std::vector<Bytes> found;
    std::set<Digest> seen;
    for (const std::string& name : names) {
        const ScopedBIOChain file(BIO_new_file((directory_ + "/" + name).c_str(), "rb"));
        Bytes der = file ? readCertificate(file.get()) : Bytes();
        if (readCertificateFields(der) && seen.insert(sha256(der)).second)
            found.push_back(std::move(der));
    }
    return found;
}

std::shared_ptr<const DistributionStore> distributionStore()
{
    const std::lock_guard lock(mutex);
    return chosenStore() ? chosenStore() : std::make_shared<HashedDirectoryStore>("/etc/ssl/certs");
}

std::shared_ptr<const DistributionStore> setDistributionStore(std::shared_ptr<const DistributionStore> store)
{
    const std::lock_guard lock(mutex);
    return std::exchange(chosenStore(), std::move(store));
}

} // namespace kf::trust
