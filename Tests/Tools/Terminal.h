// A program at a terminal of its own.
#pragma once

#include <cerrno>
#include <chrono>
#include <poll.h>
#include <pty.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace kf::test {

class Terminal {
public:
    explicit Terminal(const std::vector<std::string>& command)
    {
        std::vector<char*> words;
        for (const auto& word : command)
            words.push_back(const_cast<char*>(word.c_str()));
        words.push_back(nullptr);
        child_ = ::forkpty(&terminal_, nullptr, nullptr, nullptr);
        if (child_ < 0)
            throw std::system_error(errno, std::generic_category(), "forkpty");
        if (child_ == 0) {
            ::execvp(words[0], words.data());
            ::_exit(127);
        }
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
    ~Terminal()
    {
        if (terminal_ >= 0)
            ::close(terminal_); // a program that still runs gets SIGHUP
        if (child_ > 0)
            ::waitpid(child_, nullptr, 0);
    }

    /// What is shown up to `end` and with it.
    std::string readUntil(const std::string& end)
    {
        std::string shown;
        while (!shown.ends_with(end) && readOne(shown)) { }
        return shown;
    }
    std::string readToEnd()
    {
        std::string shown;
        while (readOne(shown)) { }
        return shown;
    }
    void type(const std::string& text)
    {
        if (::write(terminal_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            throw std::system_error(errno, std::generic_category(), "write");
    }
    /// The exit status, 128 + the signal where one ended it.
    int wait()
    {
        int status = 0;
        ::waitpid(child_, &status, 0);
        child_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    bool readOne(std::string& shown)
    {
        constexpr int patience = 20000; // milliseconds
        pollfd state = {terminal_, POLLIN, 0};
        if (::poll(&state, 1, patience) <= 0)
            throw std::runtime_error("the program shows no more than: " + shown);
        char character = 0;
        if (::read(terminal_, &character, 1) != 1)
            return false; // EIO: the program has ended
        shown += character;
        return true;
    }

    int terminal_ = -1;
    pid_t child_ = -1;
};

} // namespace kf::test
