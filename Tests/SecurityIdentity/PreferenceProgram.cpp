// preference_program NAME: prints the description of the certificate of the identity that is preferred for a name, or
// the status. For tests that need another process.
#include "Security/Keychain/Store.h"
#include "Security/SecIdentity.h"

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    SecIdentityRef identity;
    const OSStatus status = SecIdentityCopyPreference(NSString::stringWithUTF8String(argv[1]), 0, nullptr, &identity);
    if (status == errSecSuccess)
        std::puts(toUTF8(identity->certificate()->description()).c_str());
    else
        std::printf("%d\n", status);
    identity.reset();
    kf::keychain::closeAll();
    return 0;
}
