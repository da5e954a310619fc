#include "Foundation/reallocf.h"

#include <cstdlib>

extern "C" void* reallocf(void* memory, std::size_t size)
{
    if (size == 0) {
        std::free(memory);
        return nullptr;
    }
    void* grown = std::realloc(memory, size);
    if (!grown)
        std::free(memory);
    return grown;
}
