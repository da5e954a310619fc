#include "KFWizard/FieldStore.h"

namespace kf {

Ref<NSObject> FieldStore::valueForField(const Ref<NSString>& key) const
{
    if (!key)
        return nullptr;
    const std::lock_guard lock(mutex_);
    const auto found = values_.find(key->characters());
    return found == values_.end() ? nullptr : found->second;
}

void FieldStore::setValue(const Ref<NSObject>& value, const Ref<NSString>& forField)
{
    if (!forField)
        return;
    Ref<NSObject> former; // goes after the lock: an object's end may do anything
    const std::lock_guard lock(mutex_);
    Ref<NSObject>& slot = values_[forField->characters()];
    former = std::move(slot);
    slot = value;
    if (!value)
        values_.erase(forField->characters());
}

} // namespace kf
