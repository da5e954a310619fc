// Keyed collections.
#pragma once

#include "Foundation/NSString.h"

#include <utility>
#include <vector>

/// Objects by text keys, in the order in which keys were first set. Safe to
/// read from any thread while nobody changes it.
class NSDictionary : public NSObject {
public:
    static Ref<NSDictionary> dictionary();
    static Ref<NSDictionary> dictionaryWithObjectsAndKeys(
        std::initializer_list<std::pair<Ref<NSObject>, Ref<NSString>>> objectsAndKeys);

    NSUInteger count() const noexcept { return entries_.size(); }
    /// The object under a key, or nil.
    Ref<NSObject> objectForKey(const Ref<NSString>& key) const;
    /// The object under a key where it is a T, else nil.
    template <class T>
    Ref<T> objectAs(const Ref<NSString>& key) const
    {
        return refCast<T>(objectForKey(key));
    }
    std::vector<Ref<NSString>> allKeys() const;

    bool isEqual(const NSObject* other) const noexcept override;
    CFHashCode hash() const noexcept override;
    Ref<NSString> description() const override;
    const char* className() const noexcept override { return "NSDictionary"; }

protected:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    NSDictionary() = default;
    ~NSDictionary() override;

    // A handful of entries at most: a list beats a table.
    std::vector<std::pair<Ref<NSString>, Ref<NSObject>>> entries_;
};

/// One thread at a time.
class NSMutableDictionary final : public NSDictionary {
public:
    static Ref<NSMutableDictionary> dictionary();
    static Ref<NSMutableDictionary> dictionaryWithCapacity(NSUInteger capacity);
    /// Raises NSInvalidArgumentException for a nil object or key.
    void setObjectForKey(const Ref<NSObject>& object, const Ref<NSString>& key);
    void removeObjectForKey(const Ref<NSString>& key);
    const char* className() const noexcept override { return "NSMutableDictionary"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    NSMutableDictionary() = default;
    ~NSMutableDictionary() override;
};
