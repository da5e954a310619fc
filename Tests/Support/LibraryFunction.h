// Functions of a library that a test program defines itself, in front of it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace kf::test {

/// The library's function of the same name as this program's `own`. Many of those must not throw: without it, the
/// program ends.
template <class Function>
Function* libraryFunction(Function* own) noexcept
{
    Dl_info information{};
    void* const found = dladdr(reinterpret_cast<void*>(own), &information) != 0 && information.dli_sname
        ? dlsym(RTLD_NEXT, information.dli_sname)
        : nullptr;
    if (!found) {
        std::fputs("a call was not found behind the test program's own\n", stderr);
        std::abort();
    }
    return reinterpret_cast<Function*>(found);
}

} // namespace kf::test
