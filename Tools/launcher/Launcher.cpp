#include "launcher/Launcher.h"

#include "Security/Authorization/LaunchReply.h"
#include "Security/ScopedDescriptor.h"
#include "launcher/Certificate.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace kf::launcher {

using authorization::LaunchReply;

namespace {

constexpr int channel = 0;
constexpr int certificateDescriptor = 3;

/// Sends one byte, and a descriptor along with it where one is given.
bool tell(LaunchReply reply, int descriptor = -1)
{
    char byte = static_cast<char>(reply);
    iovec part{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof descriptor);
        std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    }
    return ::sendmsg(channel, &message, MSG_NOSIGNAL) == 1;
}

int giveUp(LaunchReply reply, std::string reason)
{
    // A path's control characters could pass for lines of somebody else.
    std::ranges::replace_if(
        reason, [](char character) { return character >= 0 && character < ' '; }, '?');
    std::cerr << "keyfold-launcher: " << reason << std::endl;
    tell(reply);
    return EXIT_FAILURE;
}

/// Descriptor 0 becomes the tool's input: the caller's connection, or nothing to read.
bool arrangeInput(bool hasPipe)
{
    const ScopedDescriptor null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    return ::dup2(hasPipe ? STDOUT_FILENO : null.get(), STDIN_FILENO) == STDIN_FILENO;
}

/// Comes back only where the tool could not be started.
int becomeTool(const Request& request, const Places& places)
{
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        return giveUp(LaunchReply::failed, "no pipe could be made");
    ScopedDescriptor reading(ends[0]);
    const ScopedDescriptor report(ends[1]);
    // A caller that is gone wants nothing done any more.
    if (!tell(LaunchReply::starting, reading.get()))
        return EXIT_FAILURE;
    reading.reset();

    const std::string certificate = "/dev/fd/" + std::to_string(certificateDescriptor);
    std::vector<char*> arguments = {const_cast<char*>(places.tool.c_str())};
    for (const std::string& word : request.toolWords)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(const_cast<char*>(certificate.c_str()));
    arguments.push_back(nullptr);
    if (arrangeInput(request.hasPipe))
        ::execv(places.tool.c_str(), arguments.data());
    const int error = errno;
    std::cerr << "keyfold-launcher: " << places.tool << ": " << std::strerror(error) << std::endl;
    return ::write(report.get(), &error, sizeof error) == sizeof error ? EXIT_FAILURE : EXIT_FAILURE + 1;
}

/// As far as it goes: a hard limit takes a right that some containers withhold from root.
void raiseLimit(decltype(RLIMIT_FSIZE) resource, rlim_t wanted = RLIM_INFINITY)
{
    rlimit limit{wanted, wanted};
    if (::setrlimit(resource, &limit) == 0 || ::getrlimit(resource, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(resource, &limit);
}

} // namespace

void leaveTheCallersProcess()
{
    ::clearenv();
    ::setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    ::setenv("LC_ALL", "C.UTF-8", 1);
    ::setenv("HOME", "/root", 1);
    // What is opened later must not become a standard descriptor.
    for (int opened = 0; opened >= 0 && opened <= STDERR_FILENO;)
        opened = ::open("/dev/null", O_RDWR);
    ::closefrom(STDERR_FILENO + 1);
    if (::chdir("/") != 0)
        ::_exit(EXIT_FAILURE);
    ::umask(022);
    for (const auto resource : {RLIMIT_FSIZE, RLIMIT_CPU, RLIMIT_AS, RLIMIT_DATA})
        raiseLimit(resource);
    constexpr rlim_t openFiles = 4096; // which cannot be without a limit
    raiseLimit(RLIMIT_NOFILE, openFiles);
    constexpr itimerval never{};
    for (const auto timer : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF})
        ::setitimer(timer, &never, nullptr);
    for (int signal = 1; signal < NSIG; ++signal)
        std::signal(signal, SIG_DFL); // fails for those that cannot be changed
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

int run(const std::vector<std::string>& words, const Places& places, uid_t caller)
{
    const auto request = parseRequest(words);
    if (!request)
        return giveUp(LaunchReply::refused, "these are not words that it takes");
    const FileContent file = readAs(caller, request->certificate);
    if (!file.bytes)
        return giveUp(LaunchReply::failed, request->certificate + ": " + file.error);
    if (request->isForTheAuthority && !matchesDigest(*file.bytes, places.authorityDigest, places.digestOwner)) {
        tell(LaunchReply::notTheAuthority);
        return EXIT_FAILURE;
    }
    if (!passBytes(*file.bytes, certificateDescriptor))
        return giveUp(LaunchReply::failed, "the certificate could not be passed on");
    return becomeTool(*request, places);
}

} // namespace kf::launcher
