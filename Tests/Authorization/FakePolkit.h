// A private bus with an authority that answers as told.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

struct sd_bus_message;

namespace kf::test {

/// A bus of the test's own, which takes the place of the system's while it
/// lives; is no child of this process.
class PrivateBus {
public:
    PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;
    ~PrivateBus();

    /// Whether this machine has the program for it.
    static bool isPossible();
    /// Ends it as a crash would.
    void kill();

private:
    std::filesystem::path directory_;
    std::optional<std::string> addressBefore_;
    int process_ = -1;
};

/// What the authority is asked.
struct Check {
    std::string subject;
    std::uint32_t process = 0;
    std::uint64_t startTime = 0;
    std::int32_t user = -1;
    std::string action;
    std::uint32_t flags = 0;
    std::string cancellation;
};

/// Answers on the private bus in a thread of its own.
class FakePolkit {
public:
    struct Answer {
        bool isAuthorized = false;
        bool isChallenge = false;
        std::vector<std::string> details = {}; ///< keys; each has the value "true"
        std::string errorName = {};            ///< not empty: an error instead
        std::string errorText = {};
        bool never = false;            ///< no answer
        bool heedsCancellation = true; ///< whether giving up brings an answer
    };

    explicit FakePolkit(Answer answer);
    FakePolkit(const FakePolkit&) = delete;
    FakePolkit& operator=(const FakePolkit&) = delete;
    ~FakePolkit();

    std::vector<Check> checks() const;
    std::vector<std::string> cancellations() const;
    /// Waits until so many questions have come in.
    void waitForChecks(std::size_t count) const;

private:
    void serve();
    int check(sd_bus_message* message);
    int cancel(sd_bus_message* message);
    int handleMessage(sd_bus_message* message);

    Answer answer_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::optional<bool> isServing_; ///< whether it got its name; nothing yet while it tries
    std::vector<Check> checks_;
    std::vector<std::string> cancellations_;
    sd_bus_message* open_ = nullptr;
    std::atomic<bool> ends_ = false;
    std::thread thread_;
};

} // namespace kf::test
