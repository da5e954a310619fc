#include "security/RunCommand.h"

#include "Security/ScopedDescriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>

namespace kf::security {

namespace {

struct ActionsDestroyer {
    void operator()(posix_spawn_file_actions_t* actions) const noexcept { ::posix_spawn_file_actions_destroy(actions); }
};
using ScopedActions = std::unique_ptr<posix_spawn_file_actions_t, ActionsDestroyer>;

struct AttributesDestroyer {
    void operator()(posix_spawnattr_t* attributes) const noexcept { ::posix_spawnattr_destroy(attributes); }
};
using ScopedAttributes = std::unique_ptr<posix_spawnattr_t, AttributesDestroyer>;

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
    arguments.reserve(words.size() + 1);
    for (const auto& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char locale[] = "LC_ALL=C.UTF-8";
    char home[] = "HOME=/";
    char* const environment[] = {path, locale, home, nullptr};
    posix_spawnattr_t attributes;
    if (::posix_spawnattr_init(&attributes) != 0)
        return -1;
    const ScopedAttributes attributesOwner(&attributes);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP); // a group of its own
    pid_t child = -1;
    if (::posix_spawn(&child, words[0].c_str(), &actions, &attributes, arguments.data(), environment) != 0)
        return -1;
    return child;
}

/// Keeps the beginning of what a command says: nobody reads on for ever.
void append(std::string& text, int descriptor)
{
    constexpr std::size_t textLimit = 16UL * 1024;
    std::array<char, 4096> buffer;
    for (;;) {
        const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return;
        text.append(buffer.data(), std::min(static_cast<std::size_t>(count), textLimit - text.size()));
        if (static_cast<std::size_t>(count) < buffer.size())
            return;
    }
}

int exitStatusOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

/// Listens until the command itself has ended; what it left running in the background may keep the pipe open.
CommandResult listen(pid_t child, int descriptor, std::chrono::milliseconds patience)
{
    using namespace std::chrono;
    constexpr int pause = 50;
    CommandResult result;
    const auto deadline = steady_clock::now() + patience;
    bool isOverdue = false;
    for (;;) {
        pollfd waiting = {descriptor, POLLIN, 0};
        if (::poll(&waiting, 1, pause) > 0 && (waiting.revents & POLLIN) == 0)
            std::this_thread::sleep_for(milliseconds(pause)); // it closed its output and goes on
        append(result.output, descriptor);
        int status = 0;
        if (::waitpid(child, &status, WNOHANG) == child) {
            append(result.output, descriptor);
            result.exitStatus = exitStatusOf(status);
            if (isOverdue)
                result.output += "it did not come to an end";
            return result;
        }
        if (!isOverdue && steady_clock::now() > deadline) {
            isOverdue = true;
            ::kill(-child, SIGKILL); // with all that it started
        }
    }
}

} // namespace

CommandResult runCommand(const std::vector<std::string>& words, std::chrono::milliseconds patience)
{
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0 || ::fcntl(ends[0], F_SETFL, O_NONBLOCK) != 0)
        return {127, "no pipe could be made"};
    const ScopedDescriptor input(ends[0]);
    ScopedDescriptor output(ends[1]);
    const pid_t child = spawn(words, output.get());
    output.reset();
    if (child < 0)
        return {127, "it could not be started"};
    return listen(child, input.get(), patience);
}

} // namespace kf::security
