// Owner of a file descriptor.
#pragma once

#include <unistd.h>
#include <utility>

namespace kf {

class ScopedDescriptor {
public:
    explicit ScopedDescriptor(int descriptor) noexcept : descriptor_(descriptor) { }
    ScopedDescriptor(const ScopedDescriptor&) = delete;
    ScopedDescriptor& operator=(const ScopedDescriptor&) = delete;
    ScopedDescriptor(ScopedDescriptor&& other) noexcept : descriptor_(other.leak()) { }
    ScopedDescriptor& operator=(ScopedDescriptor&& other) noexcept
    {
        reset();
        descriptor_ = other.leak();
        return *this;
    }
    ~ScopedDescriptor() { reset(); }

    int get() const noexcept { return descriptor_; }
    int leak() noexcept { return std::exchange(descriptor_, -1); }
    void reset() noexcept
    {
        if (descriptor_ >= 0)
            ::close(std::exchange(descriptor_, -1));
    }

private:
    int descriptor_;
};

} // namespace kf
