#include "security/FirefoxPolicy.h"

#include "security/CertificateFile.h"
#include "security/FileTools.h"

#include <algorithm>
#include <filesystem>

namespace kf::security {

namespace fs = std::filesystem;

namespace {

using Kind = PolicyEntry::Kind;

const std::vector<std::string> installList = {"policies", "Certificates", "Install"};
const std::vector<std::string> devices = {"policies", "SecurityDevices"};
const std::vector<std::string> addedDevices = {"policies", "SecurityDevices", "Add"};
const std::vector<std::string> deletedDevices = {"policies", "SecurityDevices", "Delete"};

constexpr const char* moduleName = "/p11-kit-trust.so";
constexpr const char* snapProgram = "/snap/bin/firefox";

bool exists(const std::string& path)
{
    std::error_code ignored;
    return fs::exists(path, ignored);
}

/// As Firefox sees it: a snap has no such library.
std::string findModule()
{
    if (exists(snapProgram))
        return {};
    for (const char* directory :
        {"/usr/lib/" KEYFOLD_LIBRARY_ARCHITECTURE "/pkcs11", "/usr/lib64/pkcs11", "/usr/lib/pkcs11"}) {
        if (std::string path = std::string(directory) + moduleName; exists(path))
            return path;
    }
    return {};
}

PolicyEntry deviceEntry(std::vector<std::string> keys, const std::string& module)
{
    keys.push_back(FirefoxPolicy::deviceName);
    return {Kind::member, std::move(keys), module};
}

/// The name under which a policy file lets Firefox consult p11-kit's module; empty for none.
std::string deviceOf(const PolicyFile& file)
{
    for (const auto& keys : {devices, addedDevices}) {
        for (const auto& [name, path] : file.members(keys)) {
            if (path.ends_with(moduleName))
                return name;
        }
    }
    return {};
}

} // namespace

FirefoxPolicy::Places::Places()
    : files{.policies = "/etc/firefox/policies/policies.json",
        .record = std::string(Record::folder) + "/firefox",
        .lock = "/run/keyfold-firefox.lock"},
      certificates("/etc/firefox/certificates"),
      module(findModule()), programs{"/usr/bin/firefox", "/usr/bin/firefox-esr", snapProgram, "/opt/firefox/firefox"}
{
}

bool FirefoxPolicy::isPresent() const
{
    return exists(fs::path(files().policies).parent_path()) || std::ranges::any_of(places_.programs, exists);
}

bool FirefoxPolicy::isOurs(const std::string& path) const
{
    return path.starts_with(places_.certificates + "/" + publishedPrefix);
}

std::string FirefoxPolicy::certificatePath(const Bytes& certificate) const
{
    return places_.certificates + "/" + publishedName(certificate) + ".pem";
}

std::vector<PolicyEntry> FirefoxPolicy::entriesFor(const Bytes& certificate, const PolicyFile& file) const
{
    if (!usesModule())
        return everyEntryFor(certificate);
    if (!deviceOf(file).empty())
        return {};
    // Firefox has two forms of the policy and heeds one of them.
    const bool isOldForm = file.has(devices) && !file.has(addedDevices) && !file.has(deletedDevices);
    return {deviceEntry(isOldForm ? devices : addedDevices, places_.module)};
}

std::vector<PolicyEntry> FirefoxPolicy::everyEntryFor(const Bytes& certificate) const
{
    return {{Kind::item, installList, certificatePath(certificate)}};
}

std::vector<PolicyEntry> FirefoxPolicy::everySharedEntry() const
{
    return {deviceEntry(devices, places_.module), deviceEntry(addedDevices, places_.module)};
}

std::vector<PolicyEntry> FirefoxPolicy::entriesOfAll(const PolicyFile& file) const
{
    // A run that was killed may have left a file without its entry.
    std::vector<std::string> paths = file.items(installList);
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(places_.certificates, ignored))
        paths.push_back(entry.path());
    std::vector<PolicyEntry> entries;
    for (const std::string& path : paths) {
        if (isOurs(path))
            entries.push_back({Kind::item, installList, path});
    }
    return entries;
}

std::string FirefoxPolicy::prepare(const Bytes& certificate, Record& record) const
{
    if (usesModule())
        return {};
    if (std::string error = record.makeDirectory(places_.certificates); !error.empty())
        return error;
    return writeFileAtomically(certificatePath(certificate), pemText(certificate), 0644);
}

std::string FirefoxPolicy::cleanUp(const PolicyEntry& entry) const { return removeFile(entry.value); }

Outcome FirefoxPolicy::afterAdding(Outcome outcome) const
{
    if (usesModule())
        outcome.text += "; it follows the distribution's trust store";
    return outcome;
}

Outcome FirefoxPolicy::afterRemoving(Outcome outcome, bool hadEntries) const
{
    if (hadEntries)
        outcome.text += "; profiles that have started with it may keep it";
    return outcome;
}

PlaceStatus FirefoxPolicy::status() const
{
    if (!isPresent())
        return {.kind = PlaceStatus::Kind::notPresent};
    Record record(files().record);
    const PolicyFile file(files().policies, record);
    if (!file.error().empty())
        return {.kind = PlaceStatus::Kind::failed, .text = file.error()};
    PlaceStatus status;
    if (!deviceOf(file).empty())
        status.follows = "distribution's trust store";
    for (const std::string& path : file.items(installList)) {
        if (!isOurs(path))
            continue;
        const CertificateFile certificate = readCertificateFile(path);
        const auto fields = certificate.der ? readCertificateFields(*certificate.der) : Failure{errSecUnknownFormat};
        if (fields)
            status.certificates.push_back({digestText(*certificate.der), fields->label});
    }
    std::ranges::sort(status.certificates, {}, &HeldCertificate::digest);
    return status;
}

} // namespace kf::security
