// The program.
#pragma once

#include "KFWizard/WizardWindow.h"
#include "Security/Certificate/CertificateFields.h"
#include "keyfold/CommandLine.h"

namespace kf {

/// Runs the program and gives its exit status (ExitStatus.h).
int runKeyfold(int argc, char** argv);

/// The bundle of the installer page beside the program.
QString defaultBundlePath();

/// The file of the institution's authority among a page's resources; empty where it is missing.
std::string authorityFile(const QString& bundlePath);
/// What that file holds, DER; empty where it cannot be read.
Bytes shippedAuthority(const QString& bundlePath);

/// Fills a window with the pages of the wizard: sign-in, installer, end. Where
/// the installer page cannot be loaded, one page tells why, and false comes back.
bool fillWizard(WizardWindow& window, const CommandLine& line);

} // namespace kf
