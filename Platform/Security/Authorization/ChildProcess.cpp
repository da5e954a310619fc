#include "Security/Authorization/ChildProcess.h"

#include "Security/Authorization.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kf::authorization {

namespace {

/// The child rearranges descriptors 0 to 3; what it needs must lie above them.
/// A process that was started with closed standard descriptors would get one of
/// those from the next open.
ScopedDescriptor lifted(int descriptor)
{
    constexpr int firstFree = 4;
    const ScopedDescriptor original(descriptor);
    if (original.get() < 0)
        return ScopedDescriptor(-1);
    return ScopedDescriptor(::fcntl(original.get(), F_DUPFD_CLOEXEC, firstFree));
}

DescriptorPair makePair(int result, const std::array<int, 2>& ends)
{
    if (result != 0)
        return {};
    return {lifted(ends[0]), lifted(ends[1])};
}

/// Keeps every signal from this thread while it lives, so that no handler of
/// ours runs in the child.
class SignalsBlocked {
public:
    SignalsBlocked() noexcept
    {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_;
};

/// What the child needs, made before the fork: after it, in a process that may
/// have had other threads, only async-signal-safe calls are allowed.
struct ChildPlan {
    const char* path;
    char* const* arguments;
    char* const* environment;
    std::array<int, 3> standard; ///< become descriptors 0 to 2; -1: this process's own
    int null;                    ///< fills what would be closed
    int report;                  ///< receives errno where the program could not be started
    bool leadsGroup;
};

void restoreSignals() noexcept
{
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal)
        ::sigaction(signal, &standard, nullptr); // fails for those that cannot be changed
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Descriptors 0 to 2 and, at 3, the report, which the exec closes.
bool arrangeDescriptors(const ChildPlan& plan) noexcept
{
    constexpr int report = 3;
    for (int number = 0; number < report; ++number) {
        const int wanted = plan.standard[static_cast<std::size_t>(number)];
        if (wanted >= 0 && ::dup2(wanted, number) < 0)
            return false;
        if (wanted < 0 && ::fcntl(number, F_GETFD) < 0 && ::dup2(plan.null, number) < 0)
            return false;
    }
    if (::dup3(plan.report, report, O_CLOEXEC) < 0)
        return false;
    ::closefrom(report + 1);
    return true;
}

[[noreturn]] void runChild(const ChildPlan& plan) noexcept
{
    int report = plan.report;
    if (arrangeDescriptors(plan)) {
        report = 3;
        if (plan.leadsGroup)
            ::setpgid(0, 0);
        restoreSignals();
        ::execve(plan.path, plan.arguments, plan.environment);
    }
    const int error = errno;
    const ssize_t told = ::write(report, &error, sizeof error);
    ::_exit(told == sizeof error ? 127 : 126);
}

/// Whether the program was started: a successful exec closes the pipe unwritten.
bool wasStarted(int report) noexcept
{
    int error = 0;
    ssize_t count;
    do
        count = ::read(report, &error, sizeof error);
    while (count < 0 && errno == EINTR);
    return count == 0;
}

/// The words as a vector ended by a null slot. The exec calls take pointers to
/// mutable text for old times' sake and change none.
std::vector<char*> slotsOf(const std::vector<std::string>& words)
{
    std::vector<char*> slots;
    slots.reserve(words.size() + 1);
    for (const std::string& word : words)
        slots.push_back(const_cast<char*>(word.c_str()));
    slots.push_back(nullptr);
    return slots;
}

} // namespace

DescriptorPair makePipe()
{
    std::array<int, 2> ends{-1, -1};
    const int result = ::pipe2(ends.data(), O_CLOEXEC);
    return makePair(result, ends);
}

DescriptorPair makeConnection()
{
    std::array<int, 2> ends{-1, -1};
    const int result = ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data());
    return makePair(result, ends);
}

Result<pid_t> startChild(const ChildProgram& program)
{
    constexpr Failure failure{errAuthorizationToolExecuteFailure};
    if (!program.path.starts_with('/'))
        return failure;
    const ScopedDescriptor null = lifted(::open("/dev/null", O_RDWR | O_CLOEXEC));
    DescriptorPair report = makePipe();
    if (null.get() < 0 || !report)
        return failure;
    std::vector<char*> arguments = slotsOf(program.arguments);
    arguments.insert(arguments.begin(), const_cast<char*>(program.path.c_str()));
    std::vector<char*> environment;
    if (program.environment)
        environment = slotsOf(*program.environment);
    const int input = program.input >= 0 ? program.input : null.get();
    const ChildPlan plan{program.path.c_str(), arguments.data(), program.environment ? environment.data() : ::environ,
        {input, program.output, program.errors}, null.get(), report.theirs.get(), program.leadsGroup};

    pid_t child;
    {
        const SignalsBlocked blocked;
        child = ::fork();
        if (child == 0)
            runChild(plan);
    }
    if (child < 0)
        return failure;
    report.theirs.reset();
    if (wasStarted(report.ours.get()))
        return child;
    waitForChild(child);
    return failure;
}

ScopedDescriptor watchChild(pid_t child)
{
    // The library's own declaration of it, in Debian 12, is for C alone.
    return ScopedDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
}

int waitForChild(pid_t child) noexcept
{
    int status = -1;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) { }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace kf::authorization
