#include "Security/Authorization/Launch.h"

#include "Security/Authorization/LaunchReply.h"
#include "Security/Authorization/OpenRequest.h"
#include "Security/Authorization/ToolPipe.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

namespace kf::authorization {

namespace {

struct Message {
    char reply = 0; ///< 0: none came
    ScopedDescriptor descriptor{-1};
};

/// One byte, and the descriptor that may come with it; nothing where there is none now.
Message receive(int channel)
{
    Message message;
    iovec part{&message.reply, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    ssize_t count;
    do
        count = ::recvmsg(channel, &header, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    while (count < 0 && errno == EINTR);
    if (count <= 0)
        return {};
    const cmsghdr* first = CMSG_FIRSTHDR(&header);
    if (first && first->cmsg_level == SOL_SOCKET && first->cmsg_type == SCM_RIGHTS) {
        int descriptor = -1;
        std::memcpy(&descriptor, CMSG_DATA(first), sizeof descriptor);
        message.descriptor = ScopedDescriptor(descriptor);
    }
    return message;
}

/// Whether the pipe of a launcher that was about to start the tool ended without a word.
bool toolRuns(int report)
{
    int error = 0;
    ssize_t count;
    do
        count = ::read(report, &error, sizeof error);
    while (count < 0 && errno == EINTR);
    return count == 0;
}

/// Until a message is there, or nobody to send one.
void waitForEither(int channel, int ended)
{
    pollfd entries[] = {{channel, POLLIN, 0}, {ended, POLLIN, 0}};
    while (::poll(entries, 2, -1) < 0 && errno == EINTR) { }
}

LaunchEnd endOf(const Message& message)
{
    switch (static_cast<LaunchReply>(message.reply)) {
    case LaunchReply::starting:
        return message.descriptor.get() >= 0 && toolRuns(message.descriptor.get()) ? LaunchEnd::started
                                                                                   : LaunchEnd::failed;
    case LaunchReply::refused:
        return LaunchEnd::refused;
    case LaunchReply::notTheAuthority:
        return LaunchEnd::notTheAuthority;
    case LaunchReply::failed:
        return LaunchEnd::failed;
    }
    return LaunchEnd::notReached;
}

} // namespace

LaunchResult launch(std::vector<std::string> prefix, const char* way, const ToolCommand& tool, std::FILE** pipe,
    std::optional<std::vector<std::string>> environment, bool leadsGroup)
{
    ToolPipe connection(pipe != nullptr);
    DescriptorPair channel = makeConnection();
    if (!connection || !channel)
        return {LaunchEnd::failed};
    const OpenRequest request;
    std::vector<std::string> words(prefix.begin() + 1, prefix.end());
    words.insert(words.end(), {way, pipe ? withPipe : withoutPipe, tool.path});
    words.insert(words.end(), tool.arguments.begin(), tool.arguments.end());
    const auto child = startChild({.path = std::move(prefix[0]),
        .arguments = std::move(words),
        .environment = std::move(environment),
        .input = channel.theirs.get(),
        .output = connection.theirs(),
        .leadsGroup = leadsGroup});
    channel.theirs.reset();
    if (!child)
        return {LaunchEnd::failed};
    const ScopedDescriptor ended = watchChild(*child);
    const bool isGivenUp = !request.waitFor(channel.ours.get(), ended.get());
    if (isGivenUp) {
        ::kill(leadsGroup ? -*child : *child, SIGTERM);
        // It may have passed the question a moment before.
        waitForEither(channel.ours.get(), ended.get());
    }
    LaunchEnd end = endOf(receive(channel.ours.get()));
    if (isGivenUp && end == LaunchEnd::notReached)
        end = LaunchEnd::canceled;
    if (end != LaunchEnd::started)
        return {.end = end, .exitStatus = waitForChild(*child)};
    connection.handTo(pipe);
    return {.end = end, .child = *child};
}

Result<pid_t> resultOfLaunch(const LaunchResult& result, OSStatus notReached)
{
    switch (result.end) {
    case LaunchEnd::started:
        return result.child;
    case LaunchEnd::canceled:
        return Failure{errAuthorizationCanceled};
    case LaunchEnd::notReached:
        return Failure{notReached};
    case LaunchEnd::refused:
    case LaunchEnd::notTheAuthority:
        return Failure{errAuthorizationDenied};
    case LaunchEnd::failed:
        break;
    }
    return Failure{errAuthorizationToolExecuteFailure};
}

} // namespace kf::authorization
