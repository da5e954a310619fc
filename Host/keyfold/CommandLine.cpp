#include "keyfold/CommandLine.h"

#include <map>
#include <set>
#include <string_view>

namespace kf {

namespace {

UsageError misuse(std::string_view what, std::string_view option)
{
    return {std::string(what) + ": " + std::string(option)};
}

std::optional<UsageError> missingForBatch(const CommandLine& line)
{
    if (line.login.empty())
        return UsageError{"--batch needs --login with a name"};
    if (line.pkcs12File.empty())
        return UsageError{"--batch needs --pkcs12 with a file"};
    if (line.passphraseFile.empty())
        return UsageError{"--batch needs --passphrase-file with a file, or - for standard input"};
    return std::nullopt;
}

} // namespace

std::variant<CommandLine, UsageError> readCommandLine(std::span<const char* const> arguments)
{
    CommandLine line;
    std::string deleteOld;
    const std::map<std::string_view, std::string*> values = {
        {"--login", &line.login},
        {"--pkcs12", &line.pkcs12File},
        {"--passphrase-file", &line.passphraseFile},
        {"--keychain-passphrase-file", &line.keychainPassphraseFile},
        {"--picture", &line.pictureFile},
        {"--bundle", &line.bundle},
        {"--delete-old", &deleteOld},
    };
    const std::set<std::string_view> batchOnly = {"--passphrase-file", "--keychain-passphrase-file", "--picture",
        "--delete-old", "--dry-run", "--json", "--quiet", "--verbose"};
    const std::map<std::string_view, CommandLine::Output> outputs = {
        {"--json", CommandLine::Output::json},
        {"--quiet", CommandLine::Output::quiet},
        {"--verbose", CommandLine::Output::verbose},
    };
    std::set<std::string_view> given;

    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            line.action = CommandLine::Action::help;
            return line;
        }
        if (argument == "--version") {
            line.action = CommandLine::Action::version;
            return line;
        }
        if (argument == "--batch") {
            line.action = CommandLine::Action::batch;
            continue;
        }
        if (argument == "--dry-run") {
            line.dryRun = true;
            given.insert("--dry-run");
            continue;
        }
        if (const auto output = outputs.find(argument); output != outputs.end()) {
            if (line.output != CommandLine::Output::text && line.output != output->second)
                return UsageError{"--json, --quiet and --verbose exclude each other"};
            line.output = output->second;
            given.insert(output->first);
            continue;
        }
        const std::size_t equals = argument.find('=');
        const auto option = values.find(argument.substr(0, equals));
        if (option == values.end())
            return misuse("unknown argument", argument);
        if (!given.insert(option->first).second)
            return misuse("given twice", option->first);
        if (equals != std::string_view::npos)
            *option->second = argument.substr(equals + 1);
        else if (++i < arguments.size())
            *option->second = arguments[i];
        else
            return misuse("a value is missing after", option->first);
    }

    if (!deleteOld.empty() && deleteOld != "yes" && deleteOld != "no")
        return misuse("--delete-old takes yes or no, not", deleteOld);
    line.deleteOld = deleteOld == "yes";
    // A name that is slightly wrong would find none of the person's old certificates.
    if (line.login.find_first_of(" \t\r\n@") != std::string::npos)
        return misuse("--login takes a name without white space and without the e-mail domain, not", line.login);
    if (line.pkcs12File == "-")
        return misuse("standard input is only for the pass phrase, not for", "--pkcs12");
    if (line.passphraseFile == "-" && line.keychainPassphraseFile == "-")
        return UsageError{"standard input can give one pass phrase only"};
    if (line.dryRun && !line.pictureFile.empty())
        return UsageError{"--dry-run and --picture exclude each other"};
    if (line.action == CommandLine::Action::batch) {
        if (const auto error = missingForBatch(line))
            return *error;
        return line;
    }
    for (const std::string_view option : batchOnly) {
        if (given.contains(option))
            return misuse("only for --batch", option);
    }
    return line;
}

const char* usageText()
{
    return R"(keyfold installs an institution's root certificate and a member's own certificate.

  keyfold [--login NAME] [--pkcs12 FILE]
      opens the wizard, with its fields filled in where given
  keyfold --batch --login NAME --pkcs12 FILE --passphrase-file FILE|-
          [--keychain-passphrase-file FILE|-] [--delete-old yes|no] [--dry-run]
          [--json | --quiet | --verbose] [--picture FILE]
      does the same without a display and prints what the page says

  --login NAME            the login name, without the e-mail domain
  --pkcs12 FILE           the PKCS#12 bundle: binary (.p12, .pfx) or base64 text
  --passphrase-file FILE  its pass phrase, the first line of FILE; - reads standard input
  --keychain-passphrase-file FILE
                          the pass phrase of the keychain, where it has one
  --delete-old yes        deletes old certificates of the person, old mail keys included: mail
                          encrypted for them can never be read again. Without it they are kept.
  --dry-run               looks at everything, tells what would be done, and changes nothing
  --json                  prints one JSON object instead of text
  --quiet                 prints nothing unless something failed
  --verbose               prints the lines of the log, too
  --picture FILE          writes a picture (PNG) of the page after the run
  --bundle DIRECTORY      takes the page from another plug-in bundle
  --help, --version

Exit status: 0 personal certificate installed, 1 not installed, 2 wrong usage, 3 a file cannot be
read, 4 the page cannot be loaded, 5 no display, 6 installed but the output or the picture cannot
be written.
)";
}

} // namespace kf
