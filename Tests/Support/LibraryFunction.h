// Functions of a library that a test program defines itself, in front of it.
#pragma once

#include <dlfcn.h>
#include <stdexcept>

namespace kf::test {

/// The library's function of the same name as this program's `own`.
template <class Function>
Function* libraryFunction(Function* own)
{
    Dl_info information{};
    void* const found = dladdr(reinterpret_cast<void*>(own), &information) != 0 && information.dli_sname
        ? dlsym(RTLD_NEXT, information.dli_sname)
        : nullptr;
    if (!found)
        throw std::logic_error("a platform call was not found behind the test program's own");
    return reinterpret_cast<Function*>(found);
}

} // namespace kf::test
