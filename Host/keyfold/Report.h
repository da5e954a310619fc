// What was installed, in words.
#pragma once

#include "Security/InstalledState.h"
#include "keyfold/Programs.h"

#include <QStringList>

namespace kf {

/// A program with a store of its own, and what that holds.
struct ProgramHolding {
    QString program;
    KeychainHolding personal;
    std::optional<bool> trustsAuthority; ///< for servers; nothing where that cannot be read
};

/// Everything that the report is made of.
struct Findings {
    std::string personalName; ///< of the certificate
    std::string authorityName;
    std::string authorityFile;
    InstalledState state;
    std::optional<std::vector<BrowserPolicy>> policies; ///< nothing where they could not be found out
    std::vector<ProgramHolding> programs;
};

struct Report {
    QStringList personal;
    QStringList authority;
    QStringList usedBy;    ///< programs that use what was installed
    QStringList notUsedBy; ///< programs that do not, with what to do
};

/// Reads every store anew. `authorityFile` is the file of the authority, DER; `tool` tells the browsers' policies.
/// Writes nothing. Takes a second: not for the main thread.
Findings readStores(std::span<const std::uint8_t> personalCertificate, std::span<const std::uint8_t> authority,
    const std::string& authorityFile, const QString& tool);

Report makeReport(const Findings& findings);

} // namespace kf
