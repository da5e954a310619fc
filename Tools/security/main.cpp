#include "security/Commands.h"
#include "security/Passphrase.h"

#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// An environment of root's own: libraries take orders from variables, and the
/// caller's HOME would have root write into the caller's home.
void cleanEnvironment()
{
    std::map<std::string, std::string> kept = {{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}, {"LC_ALL", "C.UTF-8"}};
    if (const passwd* account = ::getpwuid(::geteuid()))
        kept["HOME"] = account->pw_dir;
    if (const char* value = std::getenv("KEYFOLD_AUTHORIZATION"))
        kept["KEYFOLD_AUTHORIZATION"] = value;
    ::clearenv();
    for (const auto& [name, value] : kept)
        ::setenv(name.c_str(), value.c_str(), 1);
}

} // namespace

int main(int count, char** words)
{
    if (::geteuid() == 0) {
        cleanEnvironment();
        ::umask(022); // what everybody is to read
    }
    kf::security::TerminalPresenter presenter;
    if (kf::security::TerminalPresenter::isPossible())
        kf::Presenter::setCurrent(&presenter);
    try {
        return kf::security::run({words + (count > 0 ? 1 : 0), words + count});
    } catch (const std::exception& error) {
        std::cerr << "security: " << error.what() << '\n';
        return kf::security::exitFailure;
    }
}
