#include "Tests/Authorization/FakePolkit.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <utility>

namespace kf::test {

namespace {

constexpr const char* daemonPath = "/usr/bin/dbus-daemon";
constexpr const char* busVariable = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr const char* authorityInterface = "org.freedesktop.PolicyKit1.Authority";

std::string configuration(const std::filesystem::path& directory)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\""
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type><listen>unix:path="
        + (directory / "bus").string()
        + "</listen><policy context=\"default\"><allow send_destination=\"*\"/><allow eavesdrop=\"true\"/>"
          "<allow own=\"*\"/></policy></busconfig>\n";
}

/// Starts the bus, which goes into the background when it listens, and reads its process number.
int startDaemon(const std::filesystem::path& directory)
{
    const std::string file = (directory / "bus.conf").string();
    std::ofstream(file) << configuration(directory);
    std::array<int, 2> ends{-1, -1};
    if (::pipe(ends.data()) != 0)
        throw std::runtime_error("pipe");
    const std::string number = std::to_string(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        ::execl(daemonPath, daemonPath, "--fork", ("--config-file=" + file).c_str(), ("--print-pid=" + number).c_str(),
            nullptr);
        ::_exit(127);
    }
    ::close(ends[1]);
    std::string text;
    for (char character; ::read(ends[0], &character, 1) == 1 && character != '\n';)
        text += character;
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (text.empty() || status != 0)
        throw std::runtime_error("no private bus");
    return std::stoi(text);
}

/// Sends an answer of polkit's form.
int reply(sd_bus_message* message, const FakePolkit::Answer& answer)
{
    sd_bus_message* sending = nullptr;
    sd_bus_message_new_method_return(message, &sending);
    sd_bus_message_open_container(sending, 'r', "bba{ss}");
    sd_bus_message_append(sending, "bb", answer.isAuthorized, answer.isChallenge);
    sd_bus_message_open_container(sending, 'a', "{ss}");
    for (const std::string& key : answer.details)
        sd_bus_message_append(sending, "{ss}", key.c_str(), "true");
    sd_bus_message_close_container(sending);
    sd_bus_message_close_container(sending);
    const int sent = sd_bus_send(nullptr, sending, nullptr);
    sd_bus_message_unref(sending);
    return sent;
}

} // namespace

bool PrivateBus::isPossible() { return ::access(daemonPath, X_OK) == 0; }

PrivateBus::PrivateBus()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "keyfold-bus-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp");
    directory_ = pattern;
    process_ = startDaemon(directory_);
    if (const char* before = std::getenv(busVariable))
        addressBefore_ = before;
    ::setenv(busVariable, ("unix:path=" + (directory_ / "bus").string()).c_str(), 1);
}

void PrivateBus::kill()
{
    if (process_ > 0)
        ::kill(std::exchange(process_, -1), SIGKILL);
}

PrivateBus::~PrivateBus()
{
    kill();
    if (addressBefore_)
        ::setenv(busVariable, addressBefore_->c_str(), 1);
    else
        ::unsetenv(busVariable);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

FakePolkit::FakePolkit(Answer answer) : answer_(std::move(answer)), thread_([this] { serve(); })
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return isServing_.has_value(); });
    if (!*isServing_)
        ADD_FAILURE() << "the authority found no place on the private bus";
}

FakePolkit::~FakePolkit()
{
    ends_ = true;
    thread_.join();
}

std::vector<Check> FakePolkit::checks() const
{
    const std::lock_guard lock(mutex_);
    return checks_;
}

std::vector<std::string> FakePolkit::cancellations() const
{
    const std::lock_guard lock(mutex_);
    return cancellations_;
}

void FakePolkit::waitForChecks(std::size_t count) const
{
    constexpr std::chrono::seconds limit{10};
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, limit, [&] { return checks_.size() >= count; }))
        throw std::runtime_error("nobody asked the authority");
}

void FakePolkit::serve()
{
    sd_bus* bus = nullptr;
    const auto handler = [](sd_bus_message* message, void* self, sd_bus_error*) {
        return static_cast<FakePolkit*>(self)->handleMessage(message);
    };
    const bool isReady = sd_bus_open_system(&bus) >= 0
        && sd_bus_add_object(bus, nullptr, "/org/freedesktop/PolicyKit1/Authority", handler, this) >= 0
        && sd_bus_request_name(bus, "org.freedesktop.PolicyKit1", 0) >= 0;
    {
        const std::lock_guard lock(mutex_);
        isServing_ = isReady;
        changed_.notify_all();
    }
    constexpr std::uint64_t often = 20'000; // microseconds
    while (isReady && !ends_) {
        const int done = sd_bus_process(bus, nullptr);
        if (done < 0)
            break;
        if (done == 0)
            sd_bus_wait(bus, often);
    }
    sd_bus_message_unref(open_);
    sd_bus_flush_close_unref(bus);
}

int FakePolkit::handleMessage(sd_bus_message* message)
{
    if (sd_bus_message_is_method_call(message, authorityInterface, "CheckAuthorization"))
        return check(message);
    if (sd_bus_message_is_method_call(message, authorityInterface, "CancelCheckAuthorization"))
        return cancel(message);
    return 0;
}

int FakePolkit::check(sd_bus_message* message)
{
    Check check;
    const char* subject = "";
    const char* action = "";
    const char* cancellation = "";
    const char* keys[3] = {};
    const int count = sd_bus_message_read(message, "(sa{sv})sa{ss}us", &subject, 3, &keys[0], "u", &check.process,
        &keys[1], "t", &check.startTime, &keys[2], "i", &check.user, &action, 0, &check.flags, &cancellation);
    if (count < 0)
        return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_INVALID_ARGS, "not as expected");
    check.subject = std::string(subject) + ":" + keys[0] + "," + keys[1] + "," + keys[2];
    check.action = action;
    check.cancellation = cancellation;
    {
        const std::lock_guard lock(mutex_);
        checks_.push_back(check);
        changed_.notify_all();
    }
    if (answer_.never) {
        sd_bus_message_unref(open_);
        open_ = sd_bus_message_ref(message);
        return 1;
    }
    if (!answer_.errorName.empty()) {
        const sd_bus_error error{answer_.errorName.c_str(), answer_.errorText.c_str(), 0};
        return sd_bus_reply_method_error(message, &error);
    }
    const int sent = reply(message, answer_);
    return sent < 0 ? sent : 1;
}

int FakePolkit::cancel(sd_bus_message* message)
{
    const char* id = "";
    sd_bus_message_read(message, "s", &id);
    {
        const std::lock_guard lock(mutex_);
        cancellations_.emplace_back(id);
        changed_.notify_all();
    }
    if (open_ && answer_.heedsCancellation)
        reply(open_, Answer()); // as polkit does
    return sd_bus_reply_method_return(message, "");
}

} // namespace kf::test
