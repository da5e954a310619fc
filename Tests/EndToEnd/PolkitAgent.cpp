// polkit_agent --process PID --log FILE [--password FILE] ANSWER [ANSWER...]
//
// An authentication agent for one process. It answers its dialogs one after the
// other, the last answer for all that follow:
//   password   with the first line of the password file, through polkit's own helper and PAM
//   dismiss    as somebody who closes the dialog
//   hang       never
// It goes into the background when it is registered, writes a line for each
// dialog and each cancellation, and ends with the process. A dialog that hangs
// keeps it for ten seconds more: polkit takes it away only once it has seen the
// process that asked go.

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* helper = "/usr/lib/polkit-1/polkit-agent-helper-1";
constexpr const char* objectPath = "/org/freedesktop/PolicyKit1/AuthenticationAgent";
constexpr const char* interfaceName = "org.freedesktop.PolicyKit1.AuthenticationAgent";

struct Agent {
    int process = 0;
    std::string log;
    std::string password;
    std::vector<std::string> answers;
    std::size_t dialogs = 0;
    bool hangs = false;

    void write(const std::string& line) const { std::ofstream(log, std::ios::app) << line << std::endl; }
};

/// The 22nd field of the process's status line.
std::uint64_t startTime(int process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text);
    const char* position = text.c_str() + text.rfind(')') + 1;
    for (int field = 0; field < 20; ++field)
        position = std::strchr(position, ' ') + 1;
    return std::strtoull(position, nullptr, 10);
}

/// polkit's helper asks PAM as root and tells the authority itself.
bool authenticate(const Agent& agent, const std::string& user, const std::string& cookie)
{
    int toHelper[2];
    int fromHelper[2];
    if (::pipe2(toHelper, O_CLOEXEC) != 0 || ::pipe2(fromHelper, O_CLOEXEC) != 0)
        return false;
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(toHelper[0], 0);
        ::dup2(fromHelper[1], 1);
        ::execl(helper, helper, user.c_str(), nullptr);
        ::_exit(127);
    }
    ::close(toHelper[0]);
    ::close(fromHelper[1]);
    std::FILE* input = ::fdopen(toHelper[1], "w");
    std::FILE* output = ::fdopen(fromHelper[0], "r");
    std::fprintf(input, "%s\n", cookie.c_str());
    std::fflush(input);
    bool succeeded = false;
    char line[1024];
    while (std::fgets(line, sizeof line, output)) {
        const std::string_view text = line;
        if (text.starts_with("PAM_PROMPT_ECHO_OFF")) {
            std::fprintf(input, "%s\n", agent.password.c_str());
            std::fflush(input);
        }
        succeeded = succeeded || text.starts_with("SUCCESS");
    }
    std::fclose(input);
    std::fclose(output);
    ::waitpid(child, nullptr, 0);
    return succeeded;
}

int begin(sd_bus_message* message, Agent& agent)
{
    const char* action = "";
    const char* text = "";
    const char* icon = "";
    const char* cookie = "";
    if (sd_bus_message_read(message, "sss", &action, &text, &icon) < 0 || sd_bus_message_skip(message, "a{ss}") < 0
        || sd_bus_message_read(message, "s", &cookie) < 0)
        return -EINVAL;
    agent.write(std::string("dialog ") + action + " [" + icon + "] " + text);
    const std::string& answer = agent.answers[std::min(agent.dialogs++, agent.answers.size() - 1)];
    agent.hangs = answer == "hang";
    if (agent.hangs)
        return 1;
    if (answer == "dismiss")
        return sd_bus_reply_method_errorf(message, "org.freedesktop.PolicyKit1.Error.Cancelled", "closed");
    const char* user = std::getenv("USER");
    agent.write(authenticate(agent, user ? user : "root", cookie) ? "authenticated" : "not authenticated");
    return sd_bus_reply_method_return(message, "");
}

int handle(sd_bus_message* message, void* context, sd_bus_error*)
{
    Agent& agent = *static_cast<Agent*>(context);
    if (sd_bus_message_is_method_call(message, interfaceName, "BeginAuthentication"))
        return begin(message, agent);
    if (sd_bus_message_is_method_call(message, interfaceName, "CancelAuthentication")) {
        agent.hangs = false;
        agent.write("cancel");
        return sd_bus_reply_method_return(message, "");
    }
    return 0;
}

bool registerAgent(sd_bus* bus, Agent& agent)
{
    sd_bus_error error = {};
    const auto process = static_cast<std::uint32_t>(agent.process);
    const bool isDone = sd_bus_add_object(bus, nullptr, objectPath, handle, &agent) >= 0
        && sd_bus_call_method(bus, "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
               "org.freedesktop.PolicyKit1.Authority", "RegisterAuthenticationAgent", &error, nullptr, "(sa{sv})ss",
               "unix-process", 3, "pid", "u", process, "start-time", "t", startTime(agent.process), "uid", "i",
               static_cast<std::int32_t>(::getuid()), "en_US.UTF-8", objectPath)
            >= 0;
    if (!isDone)
        std::cerr << "polkit_agent: " << (error.message ? error.message : "no bus") << std::endl;
    sd_bus_error_free(&error);
    return isDone;
}

bool readArguments(int count, char** words, Agent& agent)
{
    for (int index = 1; index < count; ++index) {
        const std::string_view word = words[index];
        const bool hasValue = index + 1 < count;
        if (word == "--process" && hasValue)
            agent.process = std::atoi(words[++index]);
        else if (word == "--log" && hasValue)
            agent.log = words[++index];
        else if (word == "--password" && hasValue)
            std::getline(std::ifstream(words[++index]), agent.password);
        else if (word == "password" || word == "dismiss" || word == "hang")
            agent.answers.emplace_back(word);
        else
            return false;
    }
    return agent.process > 0 && !agent.log.empty() && !agent.answers.empty();
}

} // namespace

int main(int count, char** words)
{
    Agent agent;
    sd_bus* bus = nullptr;
    if (!readArguments(count, words, agent)) {
        std::cerr << "usage: polkit_agent --process PID --log FILE [--password FILE] password|dismiss|hang..."
                  << std::endl;
        return 2;
    }
    // Registered by the one that stays: the agent goes with its connection.
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0)
        return 1;
    if (::fork() != 0) {
        ::close(ready[1]);
        char byte = 0;
        // Not waited for, and no child any more once this process has ended.
        ::_exit(::read(ready[0], &byte, 1) == 1 ? 0 : 1);
    }
    ::setsid();
    if (sd_bus_open_system(&bus) < 0 || !registerAgent(bus, agent) || ::write(ready[1], "r", 1) != 1)
        return 1;
    ::close(ready[1]);
    const int null = ::open("/dev/null", O_RDWR);
    for (const int standard : {0, 1, 2})
        ::dup2(null, standard);
    const auto isThere = [&agent] { return ::kill(agent.process, 0) == 0 || errno == EPERM; };
    constexpr std::chrono::seconds patience(10);
    auto lastSeen = std::chrono::steady_clock::now();
    while (agent.hangs ? std::chrono::steady_clock::now() - lastSeen < patience : isThere()) {
        if (isThere())
            lastSeen = std::chrono::steady_clock::now();
        const int done = sd_bus_process(bus, nullptr);
        if (done < 0)
            break;
        if (done == 0)
            sd_bus_wait(bus, 100'000);
    }
    return 0;
}
