#include "Keychain/NSArray+LastCommonElement.h"

#include <algorithm>

Ref<NSObject> LastCommonElement::lastCommonElementWithArray(const Ref<NSArray>& array, const Ref<NSArray>& other)
{
    const NSUInteger count = std::min(countOf(array), countOf(other));
    for (NSUInteger index = 0; index < count; ++index) {
        if (!CFEqual(array->objectAtIndex(index), other->objectAtIndex(index)))
            return index == 0 ? nullptr : array->objectAtIndex(index - 1);
    }
    return nullptr;
}
