#include "Differential.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    try {
        fuzz::runHistory({data, size});
    } catch (const fuzz::Mismatch& mismatch) {
        std::fprintf(stderr, "%s\n", mismatch.what());
        std::abort();
    }
    return 0;
}
