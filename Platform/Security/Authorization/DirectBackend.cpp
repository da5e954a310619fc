#include "Security/Authorization/Backend.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace kf::authorization {

namespace {

/// Owns a descriptor.
class ScopedDescriptor {
public:
    ScopedDescriptor() noexcept = default;
    explicit ScopedDescriptor(int descriptor) noexcept : descriptor_(descriptor) { }
    ScopedDescriptor(ScopedDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) { }
    ScopedDescriptor& operator=(ScopedDescriptor other) noexcept
    {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    ~ScopedDescriptor() { reset(); }

    int get() const noexcept { return descriptor_; }
    explicit operator bool() const noexcept { return descriptor_ >= 0; }
    int leak() noexcept { return std::exchange(descriptor_, -1); }
    void reset() noexcept
    {
        if (descriptor_ >= 0)
            ::close(std::exchange(descriptor_, -1));
    }

private:
    int descriptor_ = -1;
};

/// The child rearranges descriptors 0 to 3; what it needs must lie above them.
/// A process that was started with closed standard descriptors would get one of
/// those from the next open.
ScopedDescriptor lifted(int descriptor)
{
    constexpr int firstFree = 4;
    const ScopedDescriptor original(descriptor);
    if (!original)
        return {};
    return ScopedDescriptor(::fcntl(original.get(), F_DUPFD_CLOEXEC, firstFree));
}

struct DescriptorPair {
    ScopedDescriptor ours;
    ScopedDescriptor theirs;
    explicit operator bool() const noexcept { return ours && theirs; }
};

DescriptorPair makePair(int result, const std::array<int, 2>& ends)
{
    if (result != 0)
        return {};
    DescriptorPair pair;
    pair.ours = lifted(ends[0]);
    pair.theirs = lifted(ends[1]);
    return pair;
}

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

struct StreamCloser {
    void operator()(std::FILE* stream) const noexcept { std::fclose(stream); }
};
using ScopedStream = std::unique_ptr<std::FILE, StreamCloser>;

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
    int input;  ///< becomes descriptor 0
    int output; ///< becomes descriptor 1; -1: this process's own
    int null;   ///< fills what would be closed
    int report; ///< receives errno where the program could not be started
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
    if (::dup2(plan.input, 0) < 0)
        return false;
    if (plan.output >= 0 && ::dup2(plan.output, 1) < 0)
        return false;
    for (const int standard : {1, 2}) {
        if (::fcntl(standard, F_GETFD) < 0 && ::dup2(plan.null, standard) < 0)
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
        restoreSignals();
        ::execv(plan.path, plan.arguments);
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

void reap(pid_t child) noexcept
{
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) { }
}

} // namespace

Status DirectBackend::obtainRight(const std::string& right, AuthorizationFlags)
{
    if (right != administratorRight)
        return Failure{errAuthorizationDenied};
    return {};
}

Status DirectBackend::execute(const ToolCommand& tool, std::FILE** pipe)
{
    constexpr Failure failure{errAuthorizationToolExecuteFailure};
    if (!tool.path.starts_with('/'))
        return failure;
    const ScopedDescriptor null = lifted(::open("/dev/null", O_RDWR | O_CLOEXEC));
    DescriptorPair report = makePipe();
    DescriptorPair connection = pipe ? makeConnection() : DescriptorPair();
    if (!null || !report || (pipe && !connection))
        return failure;
    ScopedStream stream;
    if (pipe) {
        stream.reset(::fdopen(connection.ours.get(), "r+"));
        if (!stream)
            return failure;
        static_cast<void>(connection.ours.leak());
    }
    // execv takes pointers to mutable text for old times' sake and changes none.
    std::vector<char*> arguments = {const_cast<char*>(tool.path.c_str())};
    for (const std::string& argument : tool.arguments)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    const int input = pipe ? connection.theirs.get() : null.get();
    const int output = pipe ? connection.theirs.get() : -1;
    const ChildPlan plan{tool.path.c_str(), arguments.data(), input, output, null.get(), report.theirs.get()};

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
    if (!wasStarted(report.ours.get())) {
        reap(child);
        return failure;
    }
    if (pipe)
        *pipe = stream.release();
    return {};
}

} // namespace kf::authorization
