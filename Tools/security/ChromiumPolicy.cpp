#include "security/ChromiumPolicy.h"

#include "security/CertificateFile.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <openssl/evp.h>

namespace kf::security {

namespace fs = std::filesystem;

namespace {

constexpr const char* certificatesKey = "CACertificates";
constexpr const char* mergeKey = "PolicyListMultipleSourceMergeList";

std::string base64(const Bytes& bytes)
{
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0'); // the terminator too
    auto* target = reinterpret_cast<unsigned char*>(text.data());
    text.resize(static_cast<std::size_t>(EVP_EncodeBlock(target, bytes.data(), static_cast<int>(bytes.size()))));
    return text;
}

/// Empty where it is no base64.
Bytes fromBase64(const std::string& text)
{
    Bytes bytes(text.size() / 4 * 3);
    const auto* source = reinterpret_cast<const unsigned char*>(text.data());
    const int length = EVP_DecodeBlock(bytes.data(), source, static_cast<int>(text.size()));
    const auto padding = static_cast<std::size_t>(std::ranges::count(text, '='));
    if (length < 0 || padding > 2 || bytes.size() < padding)
        return {};
    bytes.resize(bytes.size() - padding);
    return bytes;
}

std::string slug(const std::string& name)
{
    std::string text;
    for (const char character : name)
        text += character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
            : character >= 'a' && character <= 'z'   ? character
                                                     : '-';
    return text;
}

/// How the files of a directory come together.
struct Gathering {
    std::vector<std::string> unreadable;
    std::vector<std::string> setters; ///< others that set the certificates
    std::string merger;               ///< the file whose word on merging counts
    bool isMerged = false;
};

Gathering gather(const std::string& directory)
{
    std::vector<fs::path> paths;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(directory, error)) {
        if (entry.is_regular_file(error))
            paths.push_back(entry.path());
    }
    std::ranges::sort(paths);
    Gathering gathering;
    for (const fs::path& path : paths) {
        const auto lists = readPolicyLists(path);
        if (!lists) {
            gathering.unreadable.push_back(path);
            continue;
        }
        if (path.filename() != ChromiumPolicy::fileName && lists->contains(certificatesKey))
            gathering.setters.push_back(path);
        if (const auto merging = lists->find(mergeKey); merging != lists->end()) {
            gathering.merger = path;
            gathering.isMerged = std::ranges::any_of(
                merging->second, [](const std::string& name) { return name == certificatesKey || name == "*"; });
        }
    }
    return gathering;
}

} // namespace

const std::vector<ChromiumPolicy::Browser>& ChromiumPolicy::browsers()
{
    static const std::vector<Browser> table = {
        {"Chromium", "/etc/chromium/policies/managed", {"/usr/bin/chromium", "/usr/lib64/chromium-browser"}},
        {"Chromium of Ubuntu", "/etc/chromium-browser/policies/managed", {"/snap/bin/chromium"}},
        {"Chrome", "/etc/opt/chrome/policies/managed", {"/opt/google/chrome/chrome"}},
        {"Edge", "/etc/opt/edge/policies/managed", {"/opt/microsoft/msedge/msedge"}},
        {"Brave", "/etc/brave/policies/managed", {"/opt/brave.com/brave/brave", "/usr/bin/brave"}},
    };
    return table;
}

ChromiumPolicy::ChromiumPolicy(const Browser& browser)
    : ChromiumPolicy(browser,
        {.policies = browser.directory + "/" + fileName,
            .record = std::string(Record::folder) + "/" + slug(browser.name),
            .lock = "/run/keyfold-" + slug(browser.name) + ".lock"})
{
}

ChromiumPolicy::ChromiumPolicy(Browser browser, Files files)
    : PolicyPlace(std::move(files)), browser_(std::move(browser))
{
}

bool ChromiumPolicy::isPresent() const
{
    std::error_code ignored;
    return fs::is_directory(browser_.directory, ignored)
        || std::ranges::any_of(browser_.programs, [](const std::string& path) {
               std::error_code alsoIgnored;
               return fs::exists(path, alsoIgnored);
           });
}

std::vector<PolicyEntry> ChromiumPolicy::entriesFor(const Bytes& certificate, const PolicyFile&) const
{
    std::vector<PolicyEntry> entries = everyEntryFor(certificate);
    std::ranges::copy(everySharedEntry(), std::back_inserter(entries));
    return entries;
}

std::vector<PolicyEntry> ChromiumPolicy::everyEntryFor(const Bytes& certificate) const
{
    return {{PolicyEntry::Kind::item, {certificatesKey}, base64(certificate)}};
}

std::vector<PolicyEntry> ChromiumPolicy::everySharedEntry() const
{
    return {{PolicyEntry::Kind::item, {mergeKey}, certificatesKey}};
}

std::vector<PolicyEntry> ChromiumPolicy::entriesOfAll(const PolicyFile& file) const
{
    std::vector<PolicyEntry> entries;
    for (const std::string& item : file.items({certificatesKey}))
        entries.push_back({PolicyEntry::Kind::item, {certificatesKey}, item});
    return entries;
}

Outcome ChromiumPolicy::afterAdding(Outcome outcome) const
{
    const Gathering gathering = gather(browser_.directory);
    for (const std::string& path : gathering.setters) {
        if (!gathering.isMerged)
            return failed("has no effect: " + path + " sets " + certificatesKey + " too, and " + gathering.merger
                + " keeps the lists from being merged");
        outcome.text += "; " + path + " sets " + certificatesKey + " too, and both lists count";
    }
    for (const std::string& path : gathering.unreadable)
        outcome.text += "; " + path + " cannot be read, so whether it sets " + certificatesKey + " too is not known";
    return outcome;
}

PlaceStatus ChromiumPolicy::status() const
{
    if (!isPresent())
        return {.kind = PlaceStatus::Kind::notPresent};
    Record record(files().record);
    const PolicyFile file(files().policies, record);
    if (!file.error().empty())
        return {.kind = PlaceStatus::Kind::failed, .text = file.error()};
    PlaceStatus status;
    for (const std::string& item : file.items({certificatesKey})) {
        const Bytes der = fromBase64(item);
        if (const auto fields = readCertificateFields(der))
            status.certificates.push_back({digestText(der), fields->label});
    }
    std::ranges::sort(status.certificates, {}, &HeldCertificate::digest);
    return status;
}

} // namespace kf::security
