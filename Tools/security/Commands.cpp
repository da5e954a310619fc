#include "security/Commands.h"

#include "security/Passphrase.h"

#include <algorithm>
#include <array>
#include <iostream>

namespace kf::security {

namespace {

constexpr std::array commandTable = {
    Command{"add-trusted-cert",
        "dhk:p:r:", "[-d] [-r trustRoot | trustAsRoot | deny | unspecified] [-p basic] [-k keychain] certFile",
        "Adds a certificate (DER or PEM) to a keychain with a trust setting for servers and e-mail;\n"
        "where nothing else is said, trusts it as a root.\n"
        "  -d            for everybody on this computer: in the System keychain, the distribution's\n"
        "                trust store and the browsers' policies; needs administrator rights.\n"
        "                Keychain and trust store decide the exit status.\n"
        "  -r kind       trustRoot: a root certificate, trusted with all that it issues;\n"
        "                trustAsRoot: another one, trusted by itself and for nothing that it issues;\n"
        "                deny: never trusted, nor anything that it issues;\n"
        "                unspecified: neither\n"
        "  -p basic      the policy; basic is the default and the only one\n"
        "  -k keychain   the directory of a keychain that gets the certificate\n",
        addTrustedCert},
    Command{"remove-trusted-cert", "dh", "[-d] certFile",
        "Takes back what add-trusted-cert did for a certificate.\n"
        "  -d            for everybody on this computer; needs administrator rights. The\n"
        "                certificate leaves the System keychain (where it had been there\n"
        "                before, it stays without trust), the trust store and the browsers' policies.\n"
        "                Without -d its trust is taken from it; it stays in the keychain.\n",
        removeTrustedCert},
    Command{"trust-status", "h", "[--json] [certFile]",
        "Tells, place by place, which authorities this computer trusts for everybody: what the\n"
        "System keychain trusts, and what of it stands in the distribution's trust store and in\n"
        "the browsers' policies. With a certificate: where that one stands. Changes nothing.\n"
        "  --json        as JSON\n",
        trustStatus, "json"},
    Command{"dump-trust-settings", "dhs", "[-d | -s] [--json]",
        "Lists the certificates that have trust settings, the user's where no option says otherwise.\n"
        "  -d      the administrator's, which count for everybody on this computer\n"
        "  -s      the distribution's\n"
        "  --json  as a JSON array\n",
        dumpTrustSettings, "json"},
    Command{"verify-cert", "c:hp:q", "[-c certFile] ... [-p basic] [-q] [--json] [certFile ...]",
        "Tells whether the first certificate (DER or PEM) is trusted now. The others may help to\n"
        "build its chain. Revocation is not checked.\n"
        "  -c certFile  one of the certificates; those with -c come first\n"
        "  -p basic     the policy; basic is the default and the only one\n"
        "  -q           says nothing; the exit status tells\n"
        "  --json       as a JSON object\n",
        verifyCertificate, "json"},
    Command{"find-certificate", "ac:e:hpZ", "[-a] [-c name] [-e emailAddress] [-p] [-Z] [--json] [keychain ...]",
        "Shows the first certificate of the keychains (by default: the search list).\n"
        "  -a               all of them\n"
        "  -c name          only those with this common name, letter for letter\n"
        "  -e emailAddress  only those with this e-mail address\n"
        "  -p               as PEM\n"
        "  -Z               with SHA-256 and SHA-1 digests\n"
        "  --json           as a JSON array\n",
        findCertificate, "json"},
    Command{"find-identity", "hv", "[-v] [--json] [keychain ...]",
        "Lists the certificates whose private key is in the same keychain (by default: in those of\n"
        "the search list), each with its SHA-256 digest.\n"
        "  -v      only those that are trusted now\n"
        "  --json  as a JSON array\n",
        findIdentity, "json"},
    Command{"delete-certificate", "c:hZ:", "-c name | -Z digest [keychain ...]",
        "Deletes a certificate, and what its keychain says of its trust, from the keychains (by\n"
        "default: the search list). Where more than one matches, none is deleted.\n"
        "  -c name    the one with this common name, letter for letter\n"
        "  -Z digest  the one with this SHA-256 or SHA-1 digest\n",
        deleteCertificate},
    Command{"delete-identity", "c:hZ:", "-c name | -Z digest [keychain ...]",
        "Deletes a certificate together with its private key, as delete-certificate does. What was\n"
        "encrypted for that key can never be read again. A key that another certificate of the\n"
        "keychain needs is kept.\n"
        "  -c name    the one with this common name, letter for letter\n"
        "  -Z digest  the one with this SHA-256 or SHA-1 digest\n",
        deleteIdentity},
    Command{"import", "hk:P:x", "[-k keychain] [-x] [--passphrase-file file | --passphrase-fd number] file",
        "Imports a PKCS#12 bundle, all of it or nothing, or certificates (PEM or DER) into a keychain\n"
        "(by default: the default keychain). The bundle's pass phrase is asked for at the terminal\n"
        "where no option tells where to read it.\n"
        "  -k keychain               the keychain's directory\n"
        "  -x                        the private key shall never leave the keychain again\n"
        "  --passphrase-file file    the pass phrase is the first line of this file\n"
        "  --passphrase-fd number    the same of this open descriptor\n",
        importFile, passphraseOptions},
    Command{"export", "c:hk:o:P:t:Z:",
        "[-t certs | identities] [-c name] [-Z digest] [-k keychain] [-o file] [--force] "
        "[--passphrase-file file | --passphrase-fd number]",
        "Exports certificates as PEM, or one identity as a PKCS#12 bundle with its chain, encrypted\n"
        "with AES-256. The new pass phrase is asked for at the terminal where no option tells where\n"
        "to read it.\n"
        "  -t certs | identities     what is exported: certificates (the default), or a certificate\n"
        "                            with its private key\n"
        "  -c name                   only what has this common name, letter for letter\n"
        "  -Z digest                 only what has this SHA-256 or SHA-1 digest\n"
        "  -k keychain               from this keychain (by default: those of the search list)\n"
        "  -o file                   where to (by default: standard output; a bundle needs a file).\n"
        "                            Only its owner can read it.\n"
        "  --force                   takes the place of a file that is there\n"
        "  --passphrase-file file    the pass phrase is the first line of this file\n"
        "  --passphrase-fd number    the same of this open descriptor\n",
        exportItems, "force passphrase-file: passphrase-fd:"},
    Command{"list-keychains", "h", "[--json]",
        "Lists the keychains that are searched, in that order: the user's and the System keychain,\n"
        "each where it is there.\n"
        "  --json  as a JSON array\n",
        listKeychains, "json"},
    Command{"default-keychain", "h", "[--json]",
        "Shows the keychain that is written to where none is named. It need not be there yet.\n"
        "  --json  as a JSON string\n",
        defaultKeychain, "json"},
    Command{"error", "h", "[--json] status ...",
        "Shows the texts of statuses, given in decimal (-25300) or in hexadecimal (0xFFFF9D2C).\n"
        "  --json  as a JSON array\n",
        showError, "json"},
};

const Command* find(std::string_view name)
{
    const auto found = std::ranges::find(commandTable, name, &Command::name);
    return found == commandTable.end() ? nullptr : &*found;
}

void printUsage(std::ostream& stream)
{
    stream << "usage: security command [options] ...\n";
    for (const Command& command : commandTable)
        stream << "  security " << command.name << ' ' << command.synopsis << '\n';
    stream << "security command -h explains a command.\n"
              "Exit status: 0 done, 1 failed, 2 wrong usage.\n";
}

void printUsage(std::ostream& stream, const Command& command)
{
    stream << "usage: security " << command.name << ' ' << command.synopsis << '\n';
}

} // namespace

std::span<const Command> commands() { return commandTable; }

int wrongUse(std::string_view name, std::string_view error)
{
    std::cerr << "security " << name << ": " << error << '\n';
    if (const Command* command = find(name))
        printUsage(std::cerr, *command);
    return exitUsage;
}

int run(const std::vector<std::string>& words)
{
    if (words.empty()) {
        printUsage(std::cerr);
        return exitUsage;
    }
    if (words[0] == "-h" || words[0] == "--help" || words[0] == "help") {
        printUsage(std::cout);
        return exitSuccess;
    }
    const Command* command = find(words[0]);
    if (!command) {
        std::cerr << "security: unknown command \"" << words[0] << "\"\n";
        printUsage(std::cerr);
        return exitUsage;
    }
    const auto parsed = parseArguments({words.begin() + 1, words.end()}, command->letters, command->names);
    if (!parsed.error.empty())
        return wrongUse(command->name, parsed.error);
    if (parsed.arguments.has('h')) {
        printUsage(std::cout, *command);
        std::cout << command->help;
        return exitSuccess;
    }
    return command->run(parsed.arguments);
}

} // namespace kf::security
