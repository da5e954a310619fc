// rights [--cancel-after MILLISECONDS] [--interaction no] [--pipe] [add FILE | remove FILE | run PROGRAM]...
// rights [--none] [trust FILE | distrust FILE]...
// rights words WORD...
//
// Obtains the administrator's right and then, under it, runs the tool for each
// command in turn, as the installer page does; tells what came of each. With
// "words" it starts the launcher by hand, as an attacker who holds the right
// could, and tells the launcher's reply. "trust" and "distrust" write the admin
// domain of trust; with "--none" no right is obtained before.

#include "Foundation/NSData.h"
#include "Foundation/NSError.h"
#include "Keychain/KFUtilities.h"
#include "Keychain/KeychainTools.h"
#include "Keychain/SFAuthorization+Execute.h"
#include "Security/Authorization/OpenRequest.h"
#include "Security/SecTrust.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

bool hasPipe = false;

Ref<NSString> text(const char* words) { return NSString::stringWithUTF8String(words); }

Ref<NSArray> addWords(const Ref<NSString>& file)
{
    return NSArray::arrayWithObjects({"add-trusted-cert"_ns, "-k"_ns, "/Library/Keychains/System.keychain"_ns, "-d"_ns,
        "-r"_ns, "trustRoot"_ns, file});
}

void tell(const char* what, std::int32_t code, const Ref<NSError>& error)
{
    std::printf("%s: %d %s\n", what, code, error ? toUTF8(error->localizedDescription()).c_str() : "");
}

void execute(const Ref<SFAuthorization>& authorization, std::string_view command, const char* operand)
{
    Ref<NSArray> arguments;
    Ref<NSString> path = "/usr/bin/security"_ns;
    if (command == "add")
        arguments = addWords(text(operand));
    else if (command == "remove")
        arguments = NSArray::arrayWithObjects({"remove-trusted-cert"_ns, "-d"_ns, text(operand)});
    else
        path = text(operand);
    Ref<NSError> error;
    std::FILE* pipe = nullptr;
    const std::int32_t result =
        Execute::executePrivilegedTool(authorization, path, arguments, !hasPipe, hasPipe ? &pipe : nullptr, &error);
    for (int character; pipe && (character = std::fgetc(pipe)) != EOF;)
        std::putchar(character);
    if (pipe)
        std::fclose(pipe);
    if (pipe)
        ::waitpid(-1, nullptr, 0);
    tell(error ? "failed" : "ended", result, error);
    if (::waitpid(-1, nullptr, WNOHANG) != -1)
        std::puts("a child is left");
}

/// As the page's first job writes it.
Ref<NSDictionary> trustAsRoot()
{
    return NSDictionary::dictionaryWithObjectsAndKeys({{KFSecPolicyCreateBasicX509(), kSecTrustSettingsPolicy}});
}

void writeAdminDomain(std::string_view command, const char* file)
{
    const auto certificate = KeychainTools::createCertificateWithData(NSData::dataWithContentsOfFile(text(file)));
    const bool isTrusted = command == "trust";
    const OSStatus status = isTrusted
        ? SecTrustSettingsSetTrustSettings(certificate, kSecTrustSettingsDomainAdmin, trustAsRoot())
        : SecTrustSettingsRemoveTrustSettings(certificate, kSecTrustSettingsDomainAdmin);
    tell(isTrusted ? "trusted" : "distrusted", status, nullptr);
}

void startByHand(char** words)
{
    int ends[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return;
    std::string pkexec = "/usr/bin/pkexec";
    std::string option = "--disable-internal-agent";
    std::string launcher = "/usr/libexec/keyfold/keyfold-launcher";
    std::vector<char*> vector = {pkexec.data(), option.data(), launcher.data()};
    while (*words)
        vector.push_back(*words++);
    vector.push_back(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(ends[1], 0);
        ::execv(vector[0], vector.data());
        ::_exit(127);
    }
    ::close(ends[1]);
    char reply = '-';
    static_cast<void>(::read(ends[0], &reply, 1) == 1);
    ::waitpid(child, nullptr, 0);
    std::printf("reply: %c\n", reply);
}

} // namespace

int main(int count, char** words)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    AuthorizationFlags flags = 19;
    std::thread canceling;
    const auto authorization = SFAuthorization::authorization();
    bool isNeeded = true;
    bool isObtained = false;
    const auto obtain = [&] {
        Ref<NSError> error;
        isObtained = authorization->obtainWithRight("system.privilege.admin"_ns, flags, &error);
        tell("obtained", error ? static_cast<std::int32_t>(error->code()) : 0, error);
    };
    int index = 1;
    for (; index < count; ++index) {
        const std::string_view word = words[index];
        if (word == "--cancel-after" && index + 1 < count) {
            const std::chrono::milliseconds time(std::atoi(words[++index]));
            canceling = std::thread([time] {
                std::this_thread::sleep_for(time);
                kf::authorization::cancelOpenRequests();
            });
        } else if (word == "--interaction" && index + 1 < count) {
            ++index;
            flags = kAuthorizationFlagExtendRights;
        } else if (word == "--pipe") {
            hasPipe = true;
        } else if (word == "--none") {
            isNeeded = false;
        } else {
            break;
        }
    }
    if (isNeeded)
        obtain();
    if (isObtained && index < count && std::string_view(words[index]) == "words") {
        startByHand(words + index + 1);
        return 0;
    }
    for (; isObtained == isNeeded && index + 1 < count; index += 2) {
        const std::string_view command = words[index];
        if (command == "trust" || command == "distrust")
            writeAdminDomain(command, words[index + 1]);
        else
            execute(authorization, command, words[index + 1]);
    }
    if (canceling.joinable())
        canceling.join();
    return isObtained == isNeeded ? 0 : 1;
}
