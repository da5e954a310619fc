// The root of the platform's reference-counted objects.
#pragma once

#include "Foundation/Ref.h"

#include <atomic>
#include <cstdint>

class NSString;

using CFHashCode = std::uint64_t;
using CFIndex = std::int64_t;
using NSInteger = std::int64_t;
using NSUInteger = std::uint64_t;

/// "Not found" and "not set", the largest signed word.
inline constexpr NSUInteger NSNotFound = static_cast<NSUInteger>(INT64_MAX);

struct NSRange {
    NSUInteger location = 0;
    NSUInteger length = 0;
    friend bool operator==(const NSRange&, const NSRange&) = default;
};

/// Same layout as NSRange with signed words, as the CF calls take it.
struct CFRange {
    CFIndex location = 0;
    CFIndex length = 0;
};

/// An object with an atomic reference count that starts at one. Objects are
/// made on the heap and held by Ref; retain and release are for Ref's use.
/// Any thread may retain and release; the rest is as safe as the class says.
class NSObject {
public:
    NSObject(const NSObject&) = delete;
    NSObject& operator=(const NSObject&) = delete;

    /// Equality of value; identity unless a class says otherwise. Never equal to null.
    virtual bool isEqual(const NSObject* other) const noexcept;
    /// Equal objects have equal hashes. The address unless a class says otherwise.
    virtual CFHashCode hash() const noexcept;
    /// What "%@" prints.
    virtual Ref<NSString> description() const;
    /// The name that messages give the object's class.
    virtual const char* className() const noexcept;

    void retain() const noexcept { retainCount_.fetch_add(1, std::memory_order_relaxed); }
    void release() const noexcept
    {
        if (retainCount_.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
    /// For tests of ownership; another thread may change it at any time.
    std::uint32_t retainCount() const noexcept { return retainCount_.load(std::memory_order_relaxed); }

protected:
    NSObject() noexcept = default;
    /// For constants that the compiler lays down: a count that never reaches zero.
    struct Immortal { };
    explicit constexpr NSObject(Immortal) noexcept : retainCount_(std::uint32_t{1} << 30) { }
    virtual ~NSObject();

private:
    mutable std::atomic<std::uint32_t> retainCount_{1};
};

/// Hash of the object's value; 0 for null.
CFHashCode CFHash(const NSObject* object) noexcept;
/// Equality of value. Two nulls are not equal: nothing equals nil.
bool CFEqual(const NSObject* a, const NSObject* b) noexcept;

template <class T>
CFHashCode CFHash(const Ref<T>& object) noexcept
{
    return CFHash(object.get());
}
template <class T, class U>
bool CFEqual(const Ref<T>& a, const Ref<U>& b) noexcept
{
    return CFEqual(a.get(), b.get());
}
