// Ownership of the platform's reference-counted objects.
//
// A Ref<T> holds one reference. Three words say where it comes from, at the
// call site: adopt (a Create or Copy result, whose reference we take over),
// retain (a borrowed object, whose count we raise) and leak (we give our
// reference away). A null Ref is the platform's nil, which is not the same as
// an empty value.
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

template <class T>
class Ref {
public:
    constexpr Ref() noexcept = default;
    constexpr Ref(std::nullptr_t) noexcept { }

    /// Takes over the one reference that the caller owns; `object` may be null.
    [[nodiscard]] static constexpr Ref adopt(T* object) noexcept
    {
        Ref ref;
        ref.object_ = object;
        return ref;
    }

    /// Adds a reference to a borrowed object; `object` may be null.
    [[nodiscard]] static Ref retain(T* object) noexcept
    {
        if (object)
            object->retain();
        return adopt(object);
    }

    Ref(const Ref& other) noexcept : object_(other.object_)
    {
        if (object_)
            object_->retain();
    }
    constexpr Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) { }

    template <class U>
    requires std::is_convertible_v<U*, T*> Ref(const Ref<U>& other)
    noexcept : object_(other.get())
    {
        if (object_)
            object_->retain();
    }
    template <class U>
    requires std::is_convertible_v<U*, T*> Ref(Ref<U>&& other)
    noexcept : object_(other.leak()) { }

    Ref& operator=(Ref other) noexcept
    {
        std::swap(object_, other.object_);
        return *this;
    }

    constexpr ~Ref()
    {
        if (object_)
            object_->release();
    }

    [[nodiscard]] T* get() const noexcept { return object_; }
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }

    /// Gives the reference to the caller, who must release it.
    [[nodiscard]] T* leak() noexcept { return std::exchange(object_, nullptr); }

    void reset() noexcept { *this = nullptr; }

    /// Identity of the object, not equality of its value (that is CFEqual).
    friend bool operator==(const Ref& a, const Ref& b) noexcept { return a.object_ == b.object_; }
    friend bool operator==(const Ref& a, std::nullptr_t) noexcept { return a.object_ == nullptr; }

private:
    T* object_ = nullptr;
};

/// Makes a T with its constructor's arguments; the result owns its one reference.
template <class T, class... Arguments>
[[nodiscard]] Ref<T> makeRef(Arguments&&... arguments)
{
    return Ref<T>::adopt(new T(std::forward<Arguments>(arguments)...));
}

/// The same object seen as a U, or nil where it is none (or nil itself).
template <class U, class T>
[[nodiscard]] Ref<U> refCast(const Ref<T>& ref) noexcept
{
    return Ref<U>::retain(dynamic_cast<U*>(ref.get()));
}
