// The module that asks polkit, where it is missing.

#include "Foundation/NSLog.h"
#include "Security/Authorization.h"
#include "Security/Authorization/OpenRequest.h"
#include "Security/Authorization/PolkitAuthority.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

namespace {
std::string asked;
}

// In front of the C library's: nothing can be loaded.
extern "C" void* dlopen(const char* path, int flags) noexcept
{
    static const auto real = reinterpret_cast<void* (*)(const char*, int)>(dlsym(RTLD_NEXT, "dlopen"));
    asked = path ? path : "";
    return real("/nowhere/libKeyfoldPolkit.so", flags);
}

namespace {

TEST(PolkitModule, ThatIsMissingIsToldAndNobodyIsAsked)
{
    std::string logged;
    const NSLogObserver observer([&](const std::string& line) { logged = line; });
    const kf::authorization::OpenRequest request;
    EXPECT_EQ(kf::authorization::checkAuthorization("system.privilege.admin", true, request).status(),
        errAuthorizationInternal);
    EXPECT_THAT(asked, testing::MatchesRegex("/.*/libKeyfoldPolkit\\.so")) << "beside the library, whoever calls it";
    EXPECT_THAT(logged, testing::StartsWith("polkit cannot be asked: /nowhere/libKeyfoldPolkit.so: "));
}

} // namespace
