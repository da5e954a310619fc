#include "security/RunCommand.h"

#include "Security/ScopedDescriptor.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <spawn.h>
#include <sys/wait.h>

namespace kf::security {

namespace {

struct ActionsDestroyer {
    void operator()(posix_spawn_file_actions_t* actions) const noexcept { ::posix_spawn_file_actions_destroy(actions); }
};
using ScopedActions = std::unique_ptr<posix_spawn_file_actions_t, ActionsDestroyer>;

pid_t spawn(const std::vector<std::string>& words, int output)
{
    posix_spawn_file_actions_t actions;
    if (::posix_spawn_file_actions_init(&actions) != 0)
        return -1;
    const ScopedActions owner(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, output, 1);
    ::posix_spawn_file_actions_adddup2(&actions, output, 2);
    ::posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    ::posix_spawn_file_actions_addchdir_np(&actions, "/");
    // posix_spawn takes pointers to mutable text for old times' sake and changes none.
    std::vector<char*> arguments;
    for (const auto& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char locale[] = "LC_ALL=C.UTF-8";
    char home[] = "HOME=/";
    char* const environment[] = {path, locale, home, nullptr};
    pid_t child = -1;
    if (::posix_spawn(&child, words[0].c_str(), &actions, nullptr, arguments.data(), environment) != 0)
        return -1;
    return child;
}

std::string readAll(int descriptor)
{
    std::string text;
    std::array<char, 4096> buffer;
    for (;;) {
        const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return text;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

int waitFor(pid_t child)
{
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) { }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

CommandResult runCommand(const std::vector<std::string>& words)
{
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        return {127, "no pipe could be made"};
    const ScopedDescriptor input(ends[0]);
    ScopedDescriptor output(ends[1]);
    const pid_t child = spawn(words, output.get());
    output.reset();
    if (child < 0)
        return {127, "it could not be started"};
    std::string text = readAll(input.get());
    return {waitFor(child), std::move(text)};
}

} // namespace kf::security
