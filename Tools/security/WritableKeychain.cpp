#include "security/WritableKeychain.h"

#include "Security/Authorization/Backend.h"
#include "Security/Keychain/KeychainAccess.h"
#include "security/Text.h"

namespace kf::security {

bool requireWritable(const SecKeychainRef& keychain)
{
    if (!CFEqual(keychain, keychain::systemKeychain()) || authorization::currentBackend()->isAdministrator())
        return true;
    complain(keychain->path(), errAuthorizationDenied);
    return false;
}

} // namespace kf::security
