#include "launcher/Request.h"

#include "Security/Authorization/LaunchReply.h"

#include <algorithm>

namespace kf::launcher {

namespace {

using Words = std::vector<std::string>;

const std::vector<Words>& commands()
{
    static const std::vector<Words> all = {
        {"add-trusted-cert", "-k", systemKeychain, "-d", "-r", "trustRoot"},
        {"remove-trusted-cert", "-d"},
    };
    return all;
}

} // namespace

std::optional<Request> parseRequest(const Words& words)
{
    constexpr std::size_t wordsBefore = 3;
    if (words.size() <= wordsBefore)
        return std::nullopt;
    const std::string& way = words[0];
    const std::string& input = words[1];
    const bool isWay = way == authorization::wayOfTheAuthority || way == authorization::wayOfAnyCertificate;
    const bool isInput = input == authorization::withPipe || input == authorization::withoutPipe;
    if (!isWay || !isInput || words[2] != toolPath)
        return std::nullopt;
    const std::string& certificate = words.back();
    const Words command(words.begin() + wordsBefore, words.end() - 1);
    if (std::ranges::find(commands(), command) == commands().end() || !certificate.starts_with('/'))
        return std::nullopt;
    return Request{way == authorization::wayOfTheAuthority, input == authorization::withPipe, command, certificate};
}

} // namespace kf::launcher
