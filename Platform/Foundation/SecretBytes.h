// Memory for secrets: wiped when it goes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string.h>
#include <vector>

/// Wipes every block before it is freed, so that growing leaves no copy behind.
template <class T>
struct WipingAllocator {
    using value_type = T;
    WipingAllocator() noexcept = default;
    template <class U>
    WipingAllocator(const WipingAllocator<U>&) noexcept
    {
    }
    T* allocate(std::size_t count) { return static_cast<T*>(::operator new(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t count) noexcept
    {
        explicit_bzero(memory, count * sizeof(T));
        ::operator delete(memory);
    }
    friend bool operator==(const WipingAllocator&, const WipingAllocator&) noexcept { return true; }
};

/// A pass phrase or key material. A vector, not a string: a short string would
/// keep its text inside the object, out of the allocator's reach.
using SecretBytes = std::vector<std::uint8_t, WipingAllocator<std::uint8_t>>;
