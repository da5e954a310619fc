// Certificates and PKCS#12 bundles for tests, made by the openssl program, so
// that what reads them is not tested against itself.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kf::test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes readFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot read " + path.string());
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

inline void writeFile(const std::filesystem::path& path, std::string_view content)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    if (!file.flush())
        throw std::runtime_error("cannot write " + path.string());
}

inline void writeFile(const std::filesystem::path& path, std::span<const std::uint8_t> content)
{
    std::string text(content.begin(), content.end());
    writeFile(path, std::string_view(text));
}

/// What a program said: standard output and error together, and its exit status (128 + signal where one ended it).
struct Ran {
    int status = 0;
    std::string output;
};

/// Runs a program with /dev/null as its input and waits for it. Throws where it cannot be started.
inline Ran run(const std::vector<std::string>& command)
{
    int ends[2];
    if (::pipe(ends) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    std::vector<char*> arguments;
    for (const auto& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    const pid_t child = ::fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) {
        if (std::freopen("/dev/null", "r", stdin) == nullptr)
            ::_exit(127);
        ::dup2(ends[1], 1);
        ::dup2(ends[1], 2);
        ::close(ends[0]);
        ::close(ends[1]);
        ::execvp(arguments[0], arguments.data());
        ::_exit(127);
    }
    ::close(ends[1]);
    Ran ran;
    char buffer[4096];
    for (ssize_t count; (count = ::read(ends[0], buffer, sizeof buffer)) > 0;)
        ran.output.append(buffer, static_cast<std::size_t>(count));
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    ran.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return ran;
}

/// As run(), and throws what the program printed where it fails.
inline std::string mustRun(const std::vector<std::string>& command)
{
    Ran ran = run(command);
    if (ran.status != 0)
        throw std::runtime_error(command.front() + " failed (" + std::to_string(ran.status) + "): " + ran.output);
    return ran.output;
}

enum class KeyKind { rsa2048, rsa4096, rsaPSS, p256, p384, p521, ed25519 };
enum class EmailPlace { none, subject, alternativeName, both };

/// What a member's certificate and its bundle look like.
struct BundleOptions {
    KeyKind key = KeyKind::p256; ///< the quickest to make
    std::string commonName = "Ada Example";
    std::string email = "ada@orvane.example";
    EmailPlace emailPlace = EmailPlace::alternativeName; ///< both: the address stands in the certificate twice
    std::string passphrase = "correct horse";            ///< UTF-8
    std::string friendlyName = {};                       ///< empty: none
    bool withChain = false;                              ///< the issuing authority and the root go into the bundle
    bool legacy = false;                                 ///< RC2 and 3DES with SHA-1, as old programs write
    bool withoutCertificate = false;
    bool withoutKey = false;
    int iterations = 2048;
    std::string notBefore = "20200101000000Z";
    std::string notAfter = "20490101000000Z"; ///< "20210101000000Z" makes it an expired one
};

struct Bundle {
    Bytes pkcs12;
    Bytes leaf;                     ///< DER
    Bytes privateKey;               ///< PKCS#8, DER, not encrypted
    std::filesystem::path keyFile;  ///< the same, PEM
    std::filesystem::path certFile; ///< the leaf, PEM
    std::filesystem::path file;     ///< the bundle
    std::string passphrase;
};

/// A root and an authority below it that issues members' certificates, with all
/// files in a directory of their own that goes with it.
class Authority {
public:
    explicit Authority(
        std::string organization = "Orvane Collegium", std::string commonName = "Orvane Certification Authority")
        : organization_(std::move(organization)), commonName_(std::move(commonName))
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "keyfold-ca-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
        directory_ = pattern;
        writeConfiguration();
        makeRoot();
        makeIssuer();
    }
    Authority(const Authority&) = delete;
    Authority& operator=(const Authority&) = delete;
    ~Authority()
    {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    const std::filesystem::path& directory() const noexcept { return directory_; }
    Bytes root() const { return readFile(directory_ / "root.der"); }
    std::filesystem::path rootFile() const { return directory_ / "root.pem"; }
    Bytes issuer() const { return readFile(directory_ / "issuer.der"); }
    std::filesystem::path issuerFile() const { return directory_ / "issuer.pem"; }
    std::filesystem::path issuerKeyFile() const { return directory_ / "issuer.key"; }

    /// A member's key, certificate and bundle.
    Bundle issue(const BundleOptions& options = {})
    {
        const std::string name = "member" + std::to_string(++issued_);
        Bundle bundle;
        bundle.passphrase = options.passphrase;
        bundle.keyFile = directory_ / (name + ".key");
        bundle.certFile = directory_ / (name + ".pem");
        bundle.file = directory_ / (name + ".p12");
        makeKey(options.key, bundle.keyFile);
        std::string subject = "/O=" + organization_ + "/CN=" + options.commonName;
        if (options.emailPlace == EmailPlace::subject || options.emailPlace == EmailPlace::both)
            subject += "/emailAddress=" + options.email;
        std::string extensions = "basicConstraints=CA:FALSE\nkeyUsage=digitalSignature,keyEncipherment\n"
                                 "extendedKeyUsage=clientAuth,emailProtection\nsubjectKeyIdentifier=hash\n"
                                 "authorityKeyIdentifier=keyid\n";
        if (options.emailPlace == EmailPlace::alternativeName || options.emailPlace == EmailPlace::both)
            extensions += "subjectAltName=email:" + options.email + "\n";
        sign("issuer", bundle.keyFile, subject, extensions, bundle.certFile, options.notBefore, options.notAfter);
        bundle.leaf = der(bundle.certFile);
        const auto pkcs8 = directory_ / (name + ".p8");
        mustRun({"openssl", "pkcs8", "-topk8", "-nocrypt", "-in", bundle.keyFile, "-outform", "DER", "-out", pkcs8});
        bundle.privateKey = readFile(pkcs8);
        pack(options, bundle);
        return bundle;
    }

    /// Writes key and certificate of `bundle` into its file, as `options` say.
    void pack(const BundleOptions& options, Bundle& bundle)
    {
        const auto secret = directory_ / "passphrase";
        writeFile(secret, options.passphrase + "\n");
        std::vector<std::string> command = {"openssl", "pkcs12", "-export", "-out", bundle.file};
        if (options.withoutCertificate) {
            command.insert(command.end(), {"-nocerts", "-inkey", bundle.keyFile});
        } else {
            command.insert(command.end(), {"-in", bundle.certFile});
            if (options.withoutKey)
                command.push_back("-nokeys");
            else
                command.insert(command.end(), {"-inkey", bundle.keyFile});
        }
        if (options.withChain)
            command.insert(command.end(), {"-certfile", chainFile()});
        if (options.legacy)
            command.push_back("-legacy");
        else
            command.insert(command.end(), {"-iter", std::to_string(options.iterations)});
        if (!options.friendlyName.empty())
            command.insert(command.end(), {"-name", options.friendlyName});
        command.insert(command.end(), {"-passout", "file:" + secret.string()});
        mustRun(command);
        bundle.passphrase = options.passphrase;
        bundle.pkcs12 = readFile(bundle.file);
    }

    /// A server's key and certificate for a host name, below the issuing authority; returns key and certificate file.
    std::pair<std::filesystem::path, std::filesystem::path> issueServer(const std::string& host)
    {
        const std::string name = "server" + std::to_string(++issued_);
        const auto key = directory_ / (name + ".key");
        const auto certificate = directory_ / (name + ".pem");
        makeKey(KeyKind::p256, key);
        const bool address = host.find_first_not_of("0123456789.") == std::string::npos;
        sign("issuer", key, "/O=" + organization_ + "/CN=" + host,
            "basicConstraints=CA:FALSE\nkeyUsage=digitalSignature\nextendedKeyUsage=serverAuth\nsubjectAltName="
                + std::string(address ? "IP:" : "DNS:") + host + "\n",
            certificate, "20200101000000Z", "20490101000000Z");
        return {key, certificate};
    }

private:
    void writeConfiguration()
    {
        const std::string here = directory_.string();
        std::string text = "[req]\ndistinguished_name=dn\nprompt=no\nstring_mask=utf8only\n[dn]\nCN=unused\n"
                           "[any]\norganizationName=optional\ncommonName=optional\nemailAddress=optional\n";
        for (const char* ca : {"root", "issuer"}) {
            const std::string name = ca;
            text += "[" + name + "]\ndatabase=" + here + "/" + name + ".index\nserial=" + here + "/" + name
                + ".serial\nnew_certs_dir=" + here + "\ncertificate=" + here + "/" + name + ".pem\nprivate_key=" + here
                + "/" + name + ".key\ndefault_md=sha256\npolicy=any\npreserve=yes\nunique_subject=no\n"
                + "rand_serial=yes\n";
            writeFile(directory_ / (name + ".index"), std::string_view());
        }
        writeFile(directory_ / "openssl.cnf", text);
    }

    void makeKey(KeyKind kind, const std::filesystem::path& file)
    {
        std::vector<std::string> command = {"openssl", "genpkey", "-out", file};
        auto add = [&command](std::initializer_list<std::string> words) { command.insert(command.end(), words); };
        switch (kind) {
        case KeyKind::rsa2048:
            add({"-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"});
            break;
        case KeyKind::rsa4096:
            add({"-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:4096"});
            break;
        case KeyKind::rsaPSS:
            add({"-algorithm", "RSA-PSS", "-pkeyopt", "rsa_keygen_bits:2048"});
            break;
        case KeyKind::p256:
            add({"-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256"});
            break;
        case KeyKind::p384:
            add({"-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-384"});
            break;
        case KeyKind::p521:
            add({"-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-521"});
            break;
        case KeyKind::ed25519:
            add({"-algorithm", "ED25519"});
            break;
        }
        mustRun(command);
    }

    void makeRoot()
    {
        makeKey(KeyKind::p256, directory_ / "root.key");
        mustRun({"openssl", "req", "-x509", "-new", "-utf8", "-config", directory_ / "openssl.cnf", "-key",
            directory_ / "root.key", "-subj", "/O=" + organization_ + "/CN=" + commonName_, "-addext",
            "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign", "-addext",
            "subjectKeyIdentifier=hash", "-days", "7300", "-out", rootFile()});
        der(rootFile());
    }

    void makeIssuer()
    {
        makeKey(KeyKind::p256, issuerKeyFile());
        sign("root", issuerKeyFile(), "/O=" + organization_ + "/CN=" + commonName_ + " 2",
            "basicConstraints=critical,CA:TRUE\nkeyUsage=critical,keyCertSign,cRLSign\nsubjectKeyIdentifier=hash\n"
            "authorityKeyIdentifier=keyid\n",
            issuerFile(), "20200101000000Z", "20490101000000Z");
        der(issuerFile());
    }

    void sign(const std::string& ca, const std::filesystem::path& key, const std::string& subject,
        const std::string& extensions, const std::filesystem::path& certificate, const std::string& notBefore,
        const std::string& notAfter)
    {
        const auto request = directory_ / "request.pem";
        const auto extensionFile = directory_ / "extensions.cnf";
        const auto configuration = directory_ / "openssl.cnf";
        writeFile(extensionFile, extensions);
        mustRun({"openssl", "req", "-new", "-utf8", "-config", configuration, "-key", key, "-subj", subject, "-out",
            request});
        mustRun({"openssl", "ca", "-batch", "-notext", "-preserveDN", "-utf8", "-config", configuration, "-name", ca,
            "-in", request, "-extfile", extensionFile, "-startdate", notBefore, "-enddate", notAfter, "-out",
            certificate});
    }

    Bytes der(std::filesystem::path pem)
    {
        auto file = pem;
        file.replace_extension(".der");
        mustRun({"openssl", "x509", "-in", pem, "-outform", "DER", "-out", file});
        return readFile(file);
    }

    std::filesystem::path chainFile() const
    {
        const auto chain = directory_ / "chain.pem";
        const Bytes below = readFile(issuerFile());
        const Bytes top = readFile(rootFile());
        writeFile(chain, std::string(below.begin(), below.end()) + std::string(top.begin(), top.end()));
        return chain;
    }

    std::string organization_;
    std::string commonName_;
    std::filesystem::path directory_;
    int issued_ = 0;
};

} // namespace kf::test
