#include "Foundation/NSLog.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <pty.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

TEST(Log, DeliversWholeLinesInOrder)
{
    std::vector<std::string> lines;
    {
        const NSLogObserver observer([&](const std::string& line) { lines.push_back(line); });
        NSLog("first %d", 1);
        NSLog("second\nwith a break %@", "\u2603"_ns);
        NSLogMessage(nullptr);
    }
    NSLog("nobody listens");
    EXPECT_THAT(lines, testing::ElementsAre("first 1", "second\nwith a break \u2603", "(null)"));
}

TEST(Log, DeliversToEveryObserver)
{
    int first = 0;
    int second = 0;
    const NSLogObserver a([&](const std::string&) { ++first; });
    {
        const NSLogObserver b([&](const std::string&) { ++second; });
        NSLog("x");
    }
    NSLog("y");
    EXPECT_EQ(first, 2);
    EXPECT_EQ(second, 1);
}

TEST(Log, ObserverMayLogItself)
{
    int calls = 0;
    const NSLogObserver observer([&](const std::string&) {
        ++calls;
        NSLog("from the observer");
    });
    NSLog("x");
    EXPECT_EQ(calls, 1);
    NSLog("y");
    EXPECT_EQ(calls, 2);
}

TEST(Log, ObserverThatThrowsDoesNotSilenceTheNext)
{
    int calls = 0;
    const NSLogObserver observer([&](const std::string& line) {
        ++calls;
        if (line == "x")
            throw 1;
    });
    EXPECT_THROW(NSLog("x"), int);
    NSLog("y");
    EXPECT_EQ(calls, 2);
}

TEST(Log, CallsOneAtATimeFromManyThreads)
{
    std::vector<std::string> lines;
    const NSLogObserver observer([&](const std::string& line) { lines.push_back(line); });
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([thread] {
            for (int line = 0; line < 100; ++line)
                NSLog("%d:%d", thread, line);
        });
    }
    for (auto& thread : threads)
        thread.join();
    ASSERT_EQ(lines.size(), 400U);
    std::vector<int> next(4, 0);
    for (const auto& line : lines) {
        const auto colon = line.find(':');
        const auto thread = static_cast<std::size_t>(std::stoi(line.substr(0, colon)));
        EXPECT_EQ(std::stoi(line.substr(colon + 1)), next[thread]++);
    }
}

TEST(Log, LeavesErrnoAlone)
{
    const NSLogObserver observer([](const std::string&) { errno = EBADF; });
    errno = ENOENT;
    NSLog("x");
    EXPECT_EQ(errno, ENOENT);
}

TEST(Log, WritesToATerminalWithTimeProgramAndProcess)
{
    int master = -1;
    const pid_t child = forkpty(&master, nullptr, nullptr, nullptr);
    if (child == 0) {
        NSLog("to the terminal");
        _exit(0);
    }
    ASSERT_GT(child, 0);
    std::string text;
    char buffer[256];
    for (ssize_t count = 0; (count = read(master, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<std::size_t>(count));
    close(master);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_THAT(text,
        testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{3} FoundationTests\\["
            + std::to_string(child) + "\\] to the terminal\r\n"));
}

TEST(Log, IsSilentOnStandardErrorWithoutATerminal)
{
    testing::internal::CaptureStderr();
    NSLog("into the system log alone");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

} // namespace
