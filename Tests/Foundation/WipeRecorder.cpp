#include "Tests/Foundation/WipeRecorder.h"

#include <cstddef>
#include <utility>

namespace {

std::vector<std::string>* wiped = nullptr;

void wipe(void* memory, std::size_t length)
{
    volatile auto* const bytes = static_cast<unsigned char*>(memory);
    for (std::size_t index = 0; index < length; ++index)
        bytes[index] = 0;
}

} // namespace

void recordWiping(std::vector<std::string>* record) { wiped = record; }

// The program's own wiping stands before the C library's, for the libraries too.
// NOLINTBEGIN(bugprone-reserved-identifier): these are the C library's names
extern "C" void explicit_bzero(void* memory, std::size_t length) noexcept;
extern "C" void __explicit_bzero_chk(void* memory, std::size_t length, std::size_t) noexcept;

extern "C" void explicit_bzero(void* memory, std::size_t length) noexcept
{
    // Not while recording itself wipes.
    if (auto* const record = std::exchange(wiped, nullptr)) {
        record->emplace_back(static_cast<const char*>(memory), length);
        wiped = record;
    }
    wipe(memory, length);
}

extern "C" void __explicit_bzero_chk(void* memory, std::size_t length, std::size_t) noexcept
{
    explicit_bzero(memory, length);
}
// NOLINTEND(bugprone-reserved-identifier)
