#include "launcher/Launcher.h"

#include <charconv>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>
#include <string_view>
#include <unistd.h>

namespace {

/// Who asks: pkexec and sudo, which got here as root, set these variables themselves. sudo can be told to let the
/// caller's through, pkexec cannot: so sudo's comes first.
std::optional<uid_t> caller()
{
    for (const char* name : {"SUDO_UID", "PKEXEC_UID"}) {
        const char* value = std::getenv(name);
        if (!value)
            continue;
        const std::string_view text = value;
        uid_t user = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), user);
        if (error != std::errc() || end != text.data() + text.size())
            return std::nullopt;
        return user;
    }
    return ::getuid();
}

} // namespace

int main(int count, char** words)
{
    const auto user = caller();
    kf::launcher::leaveTheCallersProcess();
    if (!user)
        return EXIT_FAILURE;
    try {
        return kf::launcher::run({words + (count > 0 ? 1 : 0), words + count}, kf::launcher::Places(), *user);
    } catch (const std::exception& error) {
        std::cerr << "keyfold-launcher: " << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}
