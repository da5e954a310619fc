// Byte strings.
#pragma once

#include "Foundation/NSObject.h"

#include <span>
#include <vector>

/// Immutable bytes. Safe to read from any thread.
class NSData : public NSObject {
public:
    static Ref<NSData> data();
    static Ref<NSData> dataWithBytes(std::span<const std::uint8_t> bytes);
    static Ref<NSData> dataWithBytes(const void* bytes, NSUInteger length);
    /// Takes the vector over.
    static Ref<NSData> dataWithVector(std::vector<std::uint8_t> bytes);
    /// The content of a regular file; nil where it cannot be read.
    static Ref<NSData> dataWithContentsOfFile(const Ref<NSString>& path);

    NSUInteger length() const noexcept { return bytes_.size(); }
    const std::uint8_t* bytes() const noexcept { return bytes_.data(); }
    std::span<const std::uint8_t> span() const noexcept { return bytes_; }
    bool isEqualToData(const Ref<NSData>& other) const noexcept { return isEqual(other.get()); }

    bool isEqual(const NSObject* other) const noexcept override;
    CFHashCode hash() const noexcept override;
    Ref<NSString> description() const override;
    const char* className() const noexcept override { return "NSData"; }

protected:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    NSData() = default;
    explicit NSData(std::vector<std::uint8_t> bytes) noexcept : bytes_(std::move(bytes)) { }
    ~NSData() override;

    std::vector<std::uint8_t> bytes_;
};

/// Bytes that can grow. One thread at a time.
class NSMutableData final : public NSData {
public:
    static Ref<NSMutableData> data();
    void appendBytes(const void* bytes, NSUInteger length);
    const char* className() const noexcept override { return "NSMutableData"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    NSMutableData() = default;
    ~NSMutableData() override;
};
