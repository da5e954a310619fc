#include "Foundation/NSArray.h"

#include "Foundation/NSException.h"
#include "Foundation/NSFormat.h"

#include <algorithm>
#include <new>

const CFArrayCallBacks kCFTypeArrayCallBacks = {
    [](const NSObject* value) { value->retain(); },
    [](const NSObject* value) { value->release(); },
    CFEqual,
};

NSArray::~NSArray()
{
    if (!callBacks_.release)
        return;
    for (const NSObject* const value : values_)
        callBacks_.release(value);
}

Ref<NSArray> NSArray::array() { return makeRef<NSArray>(); }

Ref<NSArray> NSArray::arrayWithObjects(std::initializer_list<Ref<NSObject>> objects)
{
    auto array = makeRef<NSArray>();
    array->values_.reserve(objects.size());
    for (const auto& object : objects) {
        if (!object)
            NSRaise(NSInvalidArgumentException, "*** +[NSArray arrayWithObjects:]: nil object"_ns);
        array->values_.push_back(Ref<NSObject>(object).leak());
    }
    return array;
}

Ref<NSArray> NSArray::arrayWithArray(const Ref<NSArray>& other)
{
    if (!other)
        return nullptr;
    return CFArrayCreate(other->values_.data(), static_cast<CFIndex>(other->count()), &kCFTypeArrayCallBacks);
}

Ref<NSObject> NSArray::objectAtIndex(NSUInteger index) const
{
    if (index >= count())
        NSRaise(NSRangeException,
            NSStringWithFormat("*** -[%s objectAtIndex:]: index %lu beyond bounds for array of %lu objects",
                className(), index, count()));
    return Ref<NSObject>::retain(const_cast<NSObject*>(values_[index]));
}

bool NSArray::isEqual(const NSObject* other) const noexcept
{
    if (this == other)
        return true;
    const auto* const array = dynamic_cast<const NSArray*>(other);
    if (!array || array->count() != count())
        return false;
    return std::equal(values_.begin(), values_.end(), array->values_.begin(),
        [&](const NSObject* a, const NSObject* b) { return a == b || (callBacks_.equal && callBacks_.equal(a, b)); });
}

// The count alone: elements may compare equal by callbacks that know nothing of their hashes.
CFHashCode NSArray::hash() const noexcept { return count(); }

Ref<NSString> NSArray::description() const
{
    auto text = NSMutableString::string();
    text->appendString("("_ns);
    for (NSUInteger index = 0; index < count(); ++index)
        text->appendString(NSStringWithFormat(index == 0 ? "\n    %@" : ",\n    %@", objectAtIndex(index)));
    text->appendString("\n)"_ns);
    return text;
}

NSArray::Iterator::Iterator(const NSArray* array, NSUInteger index) noexcept
    : array_(array), index_(index), mutations_(array->mutations_)
{
}

void NSArray::Iterator::raiseIfMutated() const
{
    if (mutations_ != array_->mutations_)
        NSRaise(NSGenericException,
            NSStringWithFormat("*** Collection <%s: 0x%lx> was mutated while being enumerated.", array_->className(),
                reinterpret_cast<std::uintptr_t>(array_)));
}

Ref<NSObject> NSArray::Iterator::operator*() const
{
    raiseIfMutated();
    return array_->objectAtIndex(index_);
}

NSArray::Iterator& NSArray::Iterator::operator++()
{
    raiseIfMutated();
    ++index_;
    return *this;
}

bool NSArray::Iterator::operator!=(const Iterator& other) const { return index_ != other.index_; }

NSMutableArray::~NSMutableArray() = default;

Ref<NSMutableArray> NSMutableArray::array() { return makeRef<NSMutableArray>(); }

Ref<NSMutableArray> NSMutableArray::arrayWithCapacity(NSUInteger capacity)
{
    auto array = makeRef<NSMutableArray>();
    array->values_.reserve(capacity);
    return array;
}

void NSMutableArray::addObject(const Ref<NSObject>& object)
{
    if (!object)
        NSRaise(NSInvalidArgumentException, "*** -[NSMutableArray addObject:]: object cannot be nil"_ns);
    values_.push_back(object.get());
    object->retain();
    ++mutations_;
}

void NSMutableArray::removeAllObjects() noexcept
{
    ++mutations_;
    // Emptied first: a released object may look at the array again.
    const auto values = std::exchange(values_, {});
    for (const NSObject* const value : values)
        value->release();
}

Ref<NSArray> CFArrayCreate(const NSObject* const* values, CFIndex count, const CFArrayCallBacks* callBacks)
{
    if (count < 0 || (!values && count > 0))
        return nullptr;
    try {
        auto array = Ref<NSArray>::adopt(new NSArray(callBacks ? *callBacks : CFArrayCallBacks{}));
        array->values_.reserve(static_cast<std::size_t>(count));
        for (CFIndex index = 0; index < count; ++index) {
            if (array->callBacks_.retain)
                array->callBacks_.retain(values[index]);
            array->values_.push_back(values[index]);
        }
        return array;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
