// lookup_once identities|certificates ADDRESS: looks an address up twice in the keychains of $HOME, and does nothing
// else. Prints how long the first and the second time took, in milliseconds, the process's largest size, in KiB, and
// how many items were found.

#include "Keychain/KeychainTools.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <sys/resource.h>

namespace {

using Lookup = Ref<NSArray> (*)(const Ref<NSString>&);

unsigned long long found = 0;

double millisecondsOf(Lookup lookup, const Ref<NSString>& address)
{
    const auto start = std::chrono::steady_clock::now();
    found = countOf(lookup(address));
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

long largestSize()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: lookup_once identities|certificates ADDRESS\n");
        return 2;
    }
    const Lookup lookup = std::strcmp(argv[1], "identities") == 0 ? KeychainTools::identitiesForEmailAddress
                                                                  : KeychainTools::certificatesForEmailAddress;
    const auto address = NSString::stringWithUTF8String(argv[2]);
    const double first = millisecondsOf(lookup, address);
    const double second = millisecondsOf(lookup, address);
    std::printf("%.3f %.3f %ld %llu\n", first, second, largestSize(), found);
    return 0;
}
