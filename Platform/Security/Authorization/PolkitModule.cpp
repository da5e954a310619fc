#include "Security/Authorization/PolkitModule.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <poll.h>
#include <sstream>
#include <string_view>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

struct BusCloser {
    void operator()(sd_bus* bus) const noexcept { sd_bus_flush_close_unref(bus); }
};
using ScopedBus = std::unique_ptr<sd_bus, BusCloser>;

struct MessageReleaser {
    void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
};
using ScopedMessage = std::unique_ptr<sd_bus_message, MessageReleaser>;

struct SlotReleaser {
    void operator()(sd_bus_slot* slot) const noexcept { sd_bus_slot_unref(slot); }
};
using ScopedSlot = std::unique_ptr<sd_bus_slot, SlotReleaser>;

constexpr const char* authorityName = "org.freedesktop.PolicyKit1";
constexpr const char* authorityPath = "/org/freedesktop/PolicyKit1/Authority";
constexpr const char* authorityInterface = "org.freedesktop.PolicyKit1.Authority";
/// Unique among the questions of one connection, of which each has one.
constexpr const char* cancellationId = "keyfold";

/// The authority names a process by its number and the time when it began, in
/// the kernel's clock ticks: the 22nd field of its status line, whose second is
/// a name in brackets that may hold anything.
std::optional<std::uint64_t> startTime()
{
    std::ifstream file("/proc/self/stat");
    std::string text(std::istreambuf_iterator<char>(file), {});
    const auto name = text.rfind(')');
    if (name == text.npos)
        return std::nullopt;
    std::istringstream fields(text.substr(name + 1));
    constexpr int fieldsBetween = 19;
    std::string skipped;
    for (int field = 0; field < fieldsBetween; ++field)
        fields >> skipped;
    std::uint64_t time = 0;
    return fields >> time ? std::optional(time) : std::nullopt;
}

OSStatus statusOfError(const sd_bus_error& error)
{
    const std::string_view name = error.name ? error.name : "";
    const std::string_view text = error.message ? error.message : "";
    if (name == "org.freedesktop.PolicyKit1.Error.Cancelled")
        return errAuthorizationCanceled;
    if (name == "org.freedesktop.PolicyKit1.Error.NotAuthorized")
        return errAuthorizationDenied;
    if (name == "org.freedesktop.PolicyKit1.Error.Failed" && text.find("is not registered") != text.npos)
        return errAuthorizationInvalidSet;
    return errAuthorizationInternal;
}

/// The answer (bba{ss}): authorized, would be after a question, details.
OSStatus statusOfAnswer(sd_bus_message* answer)
{
    int isAuthorized = 0;
    int isChallenge = 0;
    if (sd_bus_message_enter_container(answer, 'r', "bba{ss}") < 0
        || sd_bus_message_read(answer, "bb", &isAuthorized, &isChallenge) < 0
        || sd_bus_message_enter_container(answer, 'a', "{ss}") < 0)
        return errAuthorizationInternal;
    bool isDismissed = false;
    const char* key = nullptr;
    const char* value = nullptr;
    while (sd_bus_message_read(answer, "{ss}", &key, &value) > 0)
        isDismissed = isDismissed || std::string_view(key) == "polkit.dismissed";
    if (isAuthorized)
        return errAuthorizationSuccess;
    if (isDismissed)
        return errAuthorizationCanceled;
    // It would take a question, and nobody could be asked.
    return isChallenge ? errAuthorizationInteractionNotAllowed : errAuthorizationDenied;
}

/// One question on a connection of its own.
class Question {
public:
    bool send(const std::string& action, bool interactionAllowed)
    {
        sd_bus* bus = nullptr;
        if (sd_bus_open_system(&bus) < 0)
            return false;
        bus_.reset(bus);
        const auto message = makeMessage(action, interactionAllowed);
        sd_bus_slot* slot = nullptr;
        constexpr std::uint64_t noTimeLimit = UINT64_MAX;
        if (!message || sd_bus_call_async(bus, &slot, message.get(), &Question::take, this, noTimeLimit) < 0)
            return false;
        slot_.reset(slot);
        return true;
    }

    /// `cancellation` becomes readable when the question is given up.
    OSStatus wait(int cancellation)
    {
        while (!status_) {
            const int done = sd_bus_process(bus_.get(), nullptr);
            if (done < 0)
                return errAuthorizationInternal;
            if (done > 0)
                continue;
            if (givenUp_ && Clock::now() > *givenUp_ + patience)
                return errAuthorizationCanceled;
            poll(cancellation);
        }
        // polkit answers to a cancellation as to a refusal.
        return givenUp_ && *status_ != errAuthorizationSuccess ? errAuthorizationCanceled : *status_;
    }

private:
    /// How long the authority gets to answer to a cancellation.
    static constexpr std::chrono::seconds patience{2};

    static int take(sd_bus_message* answer, void* question, sd_bus_error*)
    {
        const sd_bus_error* error = sd_bus_message_get_error(answer);
        static_cast<Question*>(question)->status_ = error ? statusOfError(*error) : statusOfAnswer(answer);
        return 0;
    }

    ScopedMessage makeMessage(const std::string& action, bool interactionAllowed) const
    {
        const auto time = startTime();
        sd_bus_message* message = nullptr;
        if (!time
            || sd_bus_message_new_method_call(
                   bus_.get(), &message, authorityName, authorityPath, authorityInterface, "CheckAuthorization")
                < 0)
            return nullptr;
        ScopedMessage owner(message);
        const auto process = static_cast<std::uint32_t>(::getpid());
        const auto user = static_cast<std::int32_t>(::getuid());
        const std::uint32_t flags = interactionAllowed ? 1 : 0;
        // No details: only trusted callers may pass any.
        const int appended = sd_bus_message_append(message, "(sa{sv})sa{ss}us", "unix-process", 3, "pid", "u", process,
            "start-time", "t", *time, "uid", "i", user, action.c_str(), 0, flags, cancellationId);
        return appended < 0 ? nullptr : std::move(owner);
    }

    /// Waits for the bus, and passes on that the request is given up.
    void poll(int cancellation)
    {
        constexpr int whileGivenUp = 100;
        pollfd entries[] = {{sd_bus_get_fd(bus_.get()), static_cast<short>(sd_bus_get_events(bus_.get())), 0},
            {givenUp_ ? -1 : cancellation, POLLIN, 0}};
        int limit = givenUp_ ? whileGivenUp : -1;
        std::uint64_t due = UINT64_MAX;
        if (sd_bus_get_timeout(bus_.get(), &due) > 0 && due != UINT64_MAX) {
            // The bus has something to do by itself then, on the monotonic clock.
            const auto now = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch());
            const auto left = (static_cast<std::int64_t>(due) - now.count()) / 1000 + 1;
            const int busLimit = static_cast<int>(std::clamp<std::int64_t>(left, 0, 1000));
            limit = limit < 0 ? busLimit : std::min(limit, busLimit);
        }
        if (::poll(entries, 2, limit) > 0 && entries[1].revents != 0)
            giveUp();
    }

    void giveUp()
    {
        givenUp_ = Clock::now();
        sd_bus_call_method_async(bus_.get(), nullptr, authorityName, authorityPath, authorityInterface,
            "CancelCheckAuthorization", nullptr, nullptr, "s", cancellationId);
    }

    ScopedBus bus_;
    ScopedSlot slot_;
    std::optional<OSStatus> status_;
    std::optional<Clock::time_point> givenUp_;
};

} // namespace

OSStatus keyfoldCheckAuthorization(const char* action, bool interactionAllowed, int givenUp)
{
    Question question;
    return question.send(action, interactionAllowed) ? question.wait(givenUp) : errAuthorizationInternal;
}
