// The program's command line.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <variant>

namespace kf {

struct CommandLine {
    enum class Action { window, batch, help, version };
    Action action = Action::window;
    std::string login;
    std::string pkcs12File;
    std::string passphraseFile;         ///< "-": standard input
    std::string keychainPassphraseFile; ///< "-": standard input; empty: none
    bool deleteOld = false;
    bool dryRun = false;
    enum class Output { text, quiet, verbose, json };
    Output output = Output::text;
    std::string pictureFile; ///< empty: none
    std::string bundle;      ///< the page's bundle; empty: the one beside the program
};

struct UsageError {
    std::string message;
};

/// Reads the arguments that follow the program's name.
std::variant<CommandLine, UsageError> readCommandLine(std::span<const char* const> arguments);

/// What --help prints.
const char* usageText();

} // namespace kf
