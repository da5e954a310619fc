#include "Foundation/NSObject.h"

#include "Foundation/NSFormat.h"

NSObject::~NSObject() = default;

bool NSObject::isEqual(const NSObject* other) const noexcept { return this == other; }

CFHashCode NSObject::hash() const noexcept { return reinterpret_cast<CFHashCode>(this); }

Ref<NSString> NSObject::description() const
{
    return NSStringWithFormat("<%s: 0x%lx>", className(), reinterpret_cast<std::uintptr_t>(this));
}

const char* NSObject::className() const noexcept { return "NSObject"; }

CFHashCode CFHash(const NSObject* object) noexcept { return object ? object->hash() : 0; }

bool CFEqual(const NSObject* a, const NSObject* b) noexcept { return a && b && a->isEqual(b); }
