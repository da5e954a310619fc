#include "security/Commands.h"
#include "security/Search.h"
#include "security/Text.h"

#include <iostream>
#include <nlohmann/json.hpp>

namespace kf::security {

namespace {

void print(const SecKeychainRef& keychain) { std::cout << "    \"" << printable(keychain->path()) << "\"\n"; }

} // namespace

int listKeychains(const Arguments& arguments)
{
    if (!arguments.operands.empty())
        return wrongUse("list-keychains", "takes no operand: which keychains are searched cannot be set");
    const auto keychains = keychainsOf({});
    if (!keychains)
        return exitFailure;
    JSON list = JSON::array();
    for (const SecKeychainRef& keychain : *keychains) {
        if (arguments.has("json"))
            list.push_back(keychain->path());
        else
            print(keychain);
    }
    if (arguments.has("json"))
        printJSON(list);
    return exitSuccess;
}

int defaultKeychain(const Arguments& arguments)
{
    if (!arguments.operands.empty())
        return wrongUse("default-keychain", "takes no operand: the default keychain cannot be set");
    SecKeychainRef keychain;
    if (const OSStatus status = SecKeychainCopyDefault(&keychain); status != errSecSuccess) {
        complain("default-keychain", status);
        return exitFailure;
    }
    if (arguments.has("json"))
        printJSON(keychain->path());
    else
        print(keychain);
    return exitSuccess;
}

} // namespace kf::security
