// The programs that keep certificates of their own.
#pragma once

#include "Security/Certificate/CertificateFields.h"

#include <QString>

#include <optional>
#include <vector>

namespace kf {

/// A program's store of certificates in the person's home.
struct ProgramStore {
    QString program;
    std::string directory; ///< of an NSS database
};

/// The stores of Firefox, Thunderbird and the browsers that do not read the default keychain, as far as they are
/// there: the program was started once. Below HOME.
std::vector<ProgramStore> programStores();

/// A browser's policy for the whole machine, as the tool tells it.
struct BrowserPolicy {
    QString browser;
    std::optional<bool> trustsAuthority; ///< nothing where the policy cannot be read
};

/// What the tool at `tool` says of the browsers on this machine and a certificate (DER), those that are not there left
/// out; nothing where the tool is missing or does not answer. Waits for it: not for the main thread.
std::optional<std::vector<BrowserPolicy>> browserPolicies(const QString& tool, const std::string& certificateFile);

} // namespace kf
