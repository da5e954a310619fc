// The commands of the tool, in one table.
#pragma once

#include "security/Arguments.h"

#include <span>
#include <string_view>

namespace kf::security {

/// Exit statuses.
inline constexpr int exitSuccess = 0;
inline constexpr int exitFailure = 1;
inline constexpr int exitUsage = 2;

struct Command {
    std::string_view name;
    std::string_view letters;  ///< its options, as getopt takes them; -h is every command's
    std::string_view synopsis; ///< what follows the name
    std::string_view help;
    int (*run)(const Arguments& arguments);
    std::string_view names = {}; ///< its options with two dashes, as parseArguments takes them
};

/// Every command.
std::span<const Command> commands();

/// Runs what the words after the program's name ask for and gives the exit status.
int run(const std::vector<std::string>& words);

/// A wrong use: tells what is wrong and how it is done right. Gives exitUsage.
int wrongUse(std::string_view command, std::string_view error);

// One file for each command, or for two that belong together.
int addTrustedCert(const Arguments& arguments);
int removeTrustedCert(const Arguments& arguments);
int trustStatus(const Arguments& arguments);
int findCertificate(const Arguments& arguments);
int findIdentity(const Arguments& arguments);
int deleteCertificate(const Arguments& arguments);
int deleteIdentity(const Arguments& arguments);
int importFile(const Arguments& arguments);
int verifyCertificate(const Arguments& arguments);
int dumpTrustSettings(const Arguments& arguments);
int exportItems(const Arguments& arguments);
int listKeychains(const Arguments& arguments);
int defaultKeychain(const Arguments& arguments);
int showError(const Arguments& arguments);

} // namespace kf::security
