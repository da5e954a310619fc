// Ordered collections.
#pragma once

#include "Foundation/NSObject.h"

#include <initializer_list>
#include <vector>

/// How an array made by CFArrayCreate treats its values. A null member does
/// nothing; a null `equal` compares by identity.
struct CFArrayCallBacks {
    void (*retain)(const NSObject* value) = nullptr;
    void (*release)(const NSObject* value) = nullptr;
    bool (*equal)(const NSObject* a, const NSObject* b) = nullptr;
};

/// Retains, releases and compares by value: what NSArray itself does.
extern const CFArrayCallBacks kCFTypeArrayCallBacks;

/// An immutable list of objects, each held by a reference of its own. Safe to
/// read from any thread.
class NSArray : public NSObject {
public:
    static Ref<NSArray> array();
    static Ref<NSArray> arrayWithObjects(std::initializer_list<Ref<NSObject>> objects);
    /// An immutable copy with references of its own. Nil gives nil.
    static Ref<NSArray> arrayWithArray(const Ref<NSArray>& other);

    NSUInteger count() const noexcept { return values_.size(); }
    /// Raises NSRangeException past the end.
    Ref<NSObject> objectAtIndex(NSUInteger index) const;
    /// The object as a T; nil where it is none.
    template <class T>
    Ref<T> objectAs(NSUInteger index) const
    {
        return refCast<T>(objectAtIndex(index));
    }

    bool isEqual(const NSObject* other) const noexcept override;
    CFHashCode hash() const noexcept override;
    Ref<NSString> description() const override;
    const char* className() const noexcept override { return "NSArray"; }

    /// Walks the objects in order. Changing a mutable array while it is walked
    /// raises NSGenericException at the next step.
    class Iterator {
    public:
        Iterator(const NSArray* array, NSUInteger index) noexcept;
        Ref<NSObject> operator*() const;
        Iterator& operator++();
        bool operator!=(const Iterator& other) const;

    private:
        void raiseIfMutated() const;

        const NSArray* array_;
        NSUInteger index_;
        NSUInteger mutations_;
    };
    Iterator begin() const noexcept { return Iterator(this, 0); }
    Iterator end() const noexcept { return Iterator(this, count()); }

protected:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    friend Ref<NSArray> CFArrayCreate(const NSObject* const* values, CFIndex count, const CFArrayCallBacks* callBacks);
    NSArray() = default;
    explicit NSArray(const CFArrayCallBacks& callBacks) noexcept : callBacks_(callBacks) { }
    ~NSArray() override;

    std::vector<const NSObject*> values_;
    CFArrayCallBacks callBacks_ = kCFTypeArrayCallBacks;
    NSUInteger mutations_ = 0;
};

/// A list that can change. One thread at a time.
class NSMutableArray final : public NSArray {
public:
    static Ref<NSMutableArray> array();
    static Ref<NSMutableArray> arrayWithCapacity(NSUInteger capacity);
    /// Raises NSInvalidArgumentException for nil.
    void addObject(const Ref<NSObject>& object);
    void removeAllObjects() noexcept;
    const char* className() const noexcept override { return "NSMutableArray"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    NSMutableArray() = default;
    ~NSMutableArray() override;
};

/// An immutable array of `count` values treated as `callBacks` say (copied;
/// null means that the array neither retains nor releases).
Ref<NSArray> CFArrayCreate(const NSObject* const* values, CFIndex count, const CFArrayCallBacks* callBacks);

/// Number of objects; 0 for nil.
inline NSUInteger countOf(const Ref<NSArray>& array) noexcept { return array ? array->count() : 0; }
