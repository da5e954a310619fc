// What the tests of CSSM share.
#pragma once

#include "Security/cssmapi.h"

#include <cstdlib>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kf::test {

/// Memory functions that know what they gave out and can run dry.
class CountingMemory {
public:
    CSSM_API_MEMORY_FUNCS functions() noexcept { return {allocate, release, reallocate, allocateCleared, this}; }

    std::size_t live() const noexcept { return blocks_.size(); }
    std::size_t given() const noexcept { return given_; }
    bool owns(const void* memory) const { return blocks_.contains(memory); }
    /// The call after `successes` more ones gets null, and so do all after it.
    void failAfter(std::size_t successes) noexcept { remaining_ = successes; }
    void neverFail() noexcept { remaining_ = unlimited; }

private:
    static constexpr std::size_t unlimited = ~std::size_t{0};

    static void* allocate(std::uint32_t size, void* self)
    {
        auto& memory = *static_cast<CountingMemory*>(self);
        if (memory.remaining_ == 0)
            return nullptr;
        if (memory.remaining_ != unlimited)
            --memory.remaining_;
        ++memory.given_;
        return *memory.blocks_.insert(std::malloc(size)).first;
    }
    static void release(void* block, void* self)
    {
        if (static_cast<CountingMemory*>(self)->blocks_.erase(block) != 1 && block)
            std::abort();
        std::free(block);
    }
    // Modules here neither grow nor clear what they hand out.
    static void* reallocate(void*, std::uint32_t, void*) { return nullptr; }
    static void* allocateCleared(std::uint32_t, std::uint32_t, void*) { return nullptr; }

    std::set<void*, std::less<>> blocks_;
    std::size_t given_ = 0;
    std::size_t remaining_ = unlimited;
};

inline CSSM_DATA dataOf(std::string_view text)
{
    return {text.size(), reinterpret_cast<std::uint8_t*>(const_cast<char*>(text.data()))};
}
inline CSSM_DATA dataOf(const std::vector<std::uint8_t>& bytes)
{
    return {bytes.size(), const_cast<std::uint8_t*>(bytes.data())};
}

inline std::string hex(const CSSM_DATA& data)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : std::span(data.Data, data.Length)) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

inline constexpr CSSM_VERSION version20{2, 0};
inline constexpr CSSM_GUID callerGuid{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

inline CSSM_RETURN initialize()
{
    CSSM_PVC_MODE policy = CSSM_PVC_NONE;
    return CSSM_Init(&version20, CSSM_PRIVILEGE_SCOPE_NONE, &callerGuid, CSSM_KEY_HIERARCHY_NONE, &policy, nullptr);
}

inline CSSM_RETURN load(const CSSM_GUID& guid)
{
    return CSSM_ModuleLoad(&guid, CSSM_KEY_HIERARCHY_NONE, nullptr, nullptr);
}

inline CSSM_RETURN unload(const CSSM_GUID& guid) { return CSSM_ModuleUnload(&guid, nullptr, nullptr); }

inline CSSM_RETURN attach(
    const CSSM_GUID& guid, CSSM_SERVICE_TYPE service, CountingMemory& memory, CSSM_MODULE_HANDLE* handle)
{
    const auto functions = memory.functions();
    return CSSM_ModuleAttach(
        &guid, &version20, &functions, 0, service, 0, CSSM_KEY_HIERARCHY_NONE, nullptr, 0, nullptr, handle);
}

} // namespace kf::test
