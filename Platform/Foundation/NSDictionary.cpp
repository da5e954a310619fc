#include "Foundation/NSDictionary.h"

#include "Foundation/NSException.h"
#include "Foundation/NSFormat.h"

#include <algorithm>

namespace {

template <class Entries>
auto find(Entries& entries, const NSString* key)
{
    return std::find_if(
        entries.begin(), entries.end(), [&](const auto& entry) { return CFEqual(entry.first.get(), key); });
}

} // namespace

NSDictionary::~NSDictionary() = default;

Ref<NSDictionary> NSDictionary::dictionary() { return makeRef<NSDictionary>(); }

Ref<NSDictionary> NSDictionary::dictionaryWithObjectsAndKeys(
    std::initializer_list<std::pair<Ref<NSObject>, Ref<NSString>>> objectsAndKeys)
{
    auto dictionary = NSMutableDictionary::dictionaryWithCapacity(objectsAndKeys.size());
    for (const auto& [object, key] : objectsAndKeys)
        dictionary->setObjectForKey(object, key);
    auto result = makeRef<NSDictionary>();
    result->entries_ = dictionary->entries_;
    return result;
}

Ref<NSObject> NSDictionary::objectForKey(const Ref<NSString>& key) const
{
    const auto entry = find(entries_, key.get());
    return entry == entries_.end() ? nullptr : entry->second;
}

std::vector<Ref<NSString>> NSDictionary::allKeys() const
{
    std::vector<Ref<NSString>> keys;
    keys.reserve(entries_.size());
    for (const auto& entry : entries_)
        keys.push_back(entry.first);
    return keys;
}

bool NSDictionary::isEqual(const NSObject* other) const noexcept
{
    if (this == other)
        return true;
    const auto* const dictionary = dynamic_cast<const NSDictionary*>(other);
    if (!dictionary || dictionary->count() != count())
        return false;
    return std::all_of(entries_.begin(), entries_.end(), [&](const auto& entry) {
        const auto theirs = find(dictionary->entries_, entry.first.get());
        return theirs != dictionary->entries_.end() && CFEqual(entry.second, theirs->second);
    });
}

CFHashCode NSDictionary::hash() const noexcept { return count(); }

Ref<NSString> NSDictionary::description() const
{
    auto text = NSMutableString::string();
    text->appendString("{"_ns);
    for (const auto& [key, object] : entries_)
        text->appendString(NSStringWithFormat("\n    %@ = %@;", key, object));
    text->appendString("\n}"_ns);
    return text;
}

NSMutableDictionary::~NSMutableDictionary() = default;

Ref<NSMutableDictionary> NSMutableDictionary::dictionary() { return makeRef<NSMutableDictionary>(); }

Ref<NSMutableDictionary> NSMutableDictionary::dictionaryWithCapacity(NSUInteger capacity)
{
    auto dictionary = makeRef<NSMutableDictionary>();
    dictionary->entries_.reserve(capacity);
    return dictionary;
}

void NSMutableDictionary::setObjectForKey(const Ref<NSObject>& object, const Ref<NSString>& key)
{
    if (!key)
        NSRaise(NSInvalidArgumentException, "*** -[NSMutableDictionary setObject:forKey:]: key cannot be nil"_ns);
    if (!object)
        NSRaise(NSInvalidArgumentException, "*** -[NSMutableDictionary setObject:forKey:]: object cannot be nil"_ns);
    const auto entry = find(entries_, key.get());
    if (entry != entries_.end())
        entry->second = object;
    else
        entries_.emplace_back(NSString::stringWithString(key), object);
}

void NSMutableDictionary::removeObjectForKey(const Ref<NSString>& key)
{
    const auto entry = find(entries_, key.get());
    if (entry != entries_.end())
        entries_.erase(entry);
}
