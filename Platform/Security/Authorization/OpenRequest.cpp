#include "Security/Authorization/OpenRequest.h"

#include <cerrno>
#include <mutex>
#include <poll.h>
#include <set>
#include <sys/eventfd.h>

namespace kf::authorization {

namespace {

std::mutex mutex;
std::set<int>& openRequests()
{
    static std::set<int> events;
    return events;
}

} // namespace

void cancelOpenRequests()
{
    const std::lock_guard lock(mutex);
    for (const int event : openRequests())
        ::eventfd_write(event, 1);
}

OpenRequest::OpenRequest() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    const std::lock_guard lock(mutex);
    openRequests().insert(event_.get());
}

OpenRequest::~OpenRequest()
{
    const std::lock_guard lock(mutex);
    openRequests().erase(event_.get());
}

bool OpenRequest::isCanceled() const noexcept
{
    pollfd entry{event_.get(), POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
}

bool OpenRequest::waitFor(int one, int other) const noexcept
{
    pollfd entries[] = {{one, POLLIN, 0}, {other, POLLIN, 0}, {event_.get(), POLLIN, 0}};
    while (::poll(entries, 3, -1) < 0 && errno == EINTR) { }
    return entries[0].revents != 0 || entries[1].revents != 0;
}

} // namespace kf::authorization
