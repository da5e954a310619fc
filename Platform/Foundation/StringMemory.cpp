#include "Foundation/StringMemory.h"

#include <cstdint>
#include <cstdlib>
#include <new>

namespace kf {
namespace {

constexpr std::size_t step = 32;
constexpr std::size_t classes = 9; // 0 for blocks too large to keep, then up to 256 bytes
constexpr std::size_t mostKept = std::size_t{2} << 20;

// The sanitizers see use after free only where memory is really freed.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool keeping = false;
#else
constexpr bool keeping = true;
#endif

/// Stands before each block.
struct Header {
    std::size_t sizeClass;
};

struct FreeBlock {
    FreeBlock* next;
};

struct Lists {
    FreeBlock* first[classes];
    std::size_t bytes;
    bool closed;
};

// Initial-exec: this library is loaded with its program, and a lookup by call would cost as much as the list saves.
[[gnu::tls_model("initial-exec")]] constinit thread_local Lists lists{};

/// Gives the lists back at the thread's end. Strings freed later than that, by
/// destructors of other thread-local objects, find the lists closed.
struct Closer {
    Closer() noexcept = default;
    ~Closer()
    {
        lists.closed = true;
        for (FreeBlock*& first : lists.first) {
            while (first) {
                FreeBlock* const block = first;
                first = block->next;
                std::free(reinterpret_cast<Header*>(block) - 1);
            }
        }
        lists.bytes = 0;
    }
};

[[gnu::noinline]] void* allocateBlock(std::size_t size, std::size_t sizeClass)
{
    void* const memory = std::malloc(sizeof(Header) + size);
    if (!memory)
        throw std::bad_alloc();
    return ::new (memory) Header{sizeClass} + 1;
}

[[gnu::noinline]] void armCloser() noexcept
{
    thread_local Closer closer;
    static_cast<void>(closer);
}

} // namespace

void* allocateString(std::size_t size)
{
    const std::size_t sizeClass = (size + step - 1) / step;
    if (!keeping || sizeClass >= classes)
        return allocateBlock(size, 0);
    FreeBlock* const block = lists.first[sizeClass];
    if (!block)
        return allocateBlock(sizeClass * step, sizeClass);
    lists.first[sizeClass] = block->next;
    lists.bytes -= sizeClass * step;
    return block;
}

void freeString(void* memory) noexcept
{
    if (!memory)
        return;
    Header* const header = static_cast<Header*>(memory) - 1;
    const std::size_t size = header->sizeClass * step;
    if (size == 0 || lists.closed || lists.bytes + size > mostKept) {
        std::free(header);
        return;
    }
    if (lists.bytes == 0)
        armCloser();
    lists.first[header->sizeClass] = ::new (memory) FreeBlock{lists.first[header->sizeClass]};
    lists.bytes += size;
}

} // namespace kf
