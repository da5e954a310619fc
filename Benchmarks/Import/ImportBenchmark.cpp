// import_benchmark RUNS LIMIT OURS YARDSTICK PREPARE: times two shell commands against each other, process against
// process, in interleaved runs; PREPARE runs before each of them, outside the measurement. Prints both medians and
// their ratio. Exit status 1 where the ratio passes LIMIT, 2 where a command fails.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

Milliseconds timeOf(const std::string& command)
{
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("fork failed");
    if (child == 0) {
        const int sink = open("/dev/null", O_WRONLY);
        dup2(sink, STDOUT_FILENO);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0)
        throw std::runtime_error("failed: " + command);
    return std::chrono::steady_clock::now() - start;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

int run(int runs, double limit, const std::string& ours, const std::string& yardstick, const std::string& prepare)
{
    std::vector<double> oursTimes;
    std::vector<double> yardstickTimes;
    for (int i = 0; i < runs; ++i) {
        timeOf(prepare);
        oursTimes.push_back(timeOf(ours).count());
        timeOf(prepare);
        yardstickTimes.push_back(timeOf(yardstick).count());
    }
    const double ratio = median(oursTimes) / median(yardstickTimes);
    std::printf("ours %.1f ms, yardstick %.1f ms, ratio %.2f (at most %.2f), median of %d interleaved runs\n",
        median(oursTimes), median(yardstickTimes), ratio, limit, runs);
    return ratio <= limit ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 6) {
        std::fprintf(stderr, "usage: import_benchmark RUNS LIMIT OURS YARDSTICK PREPARE\n");
        return 2;
    }
    try {
        return run(std::stoi(argv[1]), std::stod(argv[2]), argv[3], argv[4], argv[5]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "import_benchmark: %s\n", error.what());
        return 2;
    }
}
