#include "Foundation/NSLog.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <errno.h>
#include <mutex>
#include <syslog.h>
#include <unistd.h>

namespace {

using Receive = std::function<void(const std::string& line)>;

struct Observers {
    // Recursive, because an observer may be made or go while a line is delivered.
    std::recursive_mutex mutex;
    std::vector<std::shared_ptr<const Receive>> receivers;
};

/// Never destroyed: destructors of other globals may still log.
Observers& observers()
{
    static Observers& object = *new Observers;
    return object;
}

thread_local bool delivering = false;

std::string timestamp()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm local{};
    localtime_r(&now.tv_sec, &local);
    char date[32];
    const std::size_t length = std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
    char text[48];
    std::snprintf(
        text, sizeof text, "%.*s.%03d", static_cast<int>(length), date, static_cast<int>(now.tv_nsec / 1000000));
    return text;
}

void writeToTerminal(const std::string& line)
{
    const std::string text =
        timestamp() + ' ' + program_invocation_short_name + '[' + std::to_string(getpid()) + "] " + line + '\n';
    for (std::size_t written = 0; written < text.size();) {
        const ssize_t count = write(STDERR_FILENO, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return;
        written += static_cast<std::size_t>(count);
    }
}

void deliver(const std::string& line)
{
    // What an observer logs itself is not delivered to observers: it would never end.
    if (std::exchange(delivering, true))
        return;
    struct Reset {
        ~Reset() { delivering = false; }
    } const reset;
    const auto receivers = observers().receivers;
    for (const auto& receive : receivers)
        (*receive)(line);
}

} // namespace

void NSLogMessage(const Ref<NSString>& line)
{
    const int savedErrno = errno;
    const std::string text = toUTF8(line);
    {
        const std::lock_guard lock(observers().mutex);
        syslog(LOG_USER | LOG_NOTICE, "%s", text.c_str());
        if (isatty(STDERR_FILENO))
            writeToTerminal(text);
        deliver(text);
    }
    errno = savedErrno;
}

NSLogObserver::NSLogObserver(std::function<void(const std::string& line)> receive)
    : receive_(std::make_shared<const Receive>(std::move(receive)))
{
    const std::lock_guard lock(observers().mutex);
    observers().receivers.push_back(receive_);
}

NSLogObserver::~NSLogObserver()
{
    const std::lock_guard lock(observers().mutex);
    std::erase(observers().receivers, receive_);
}
