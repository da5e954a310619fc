#include "Security/Authorization/PolkitAuthority.h"

#include "Foundation/NSLog.h"
#include "Security/Authorization/PolkitModule.h"

#include <dlfcn.h>

namespace kf::authorization {

namespace {

using Check = decltype(&keyfoldCheckAuthorization);

/// Null, with the reason logged, where the module cannot be loaded. It stays.
Check loadModule()
{
    // Beside this library: not every dlopen() knows who calls it.
    Dl_info here{};
    std::string path = dladdr(reinterpret_cast<const void*>(&checkAuthorization), &here) != 0 ? here.dli_fname : "";
    path.erase(path.rfind('/') + 1);
    void* const module = dlopen((path + polkitModuleName).c_str(), RTLD_NOW | RTLD_LOCAL);
    void* const check = module ? dlsym(module, "keyfoldCheckAuthorization") : nullptr;
    if (!check)
        NSLog("polkit cannot be asked: %s", dlerror());
    return reinterpret_cast<Check>(check);
}

} // namespace

Status checkAuthorization(const std::string& action, bool interactionAllowed, const OpenRequest& request)
{
    static const Check check = loadModule();
    const OSStatus status =
        check ? check(action.c_str(), interactionAllowed, request.descriptor()) : errAuthorizationInternal;
    return status == errAuthorizationSuccess ? Status() : Status(Failure{status});
}

} // namespace kf::authorization
