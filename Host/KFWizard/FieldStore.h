// The values that the pages of a wizard share.
#pragma once

#include "Foundation/NSString.h"

#include <map>
#include <mutex>

namespace kf {

/// Named values. Any thread: pages write on the main thread, their jobs read
/// and write on the job thread.
class FieldStore {
public:
    /// The value under a key, or nil.
    Ref<NSObject> valueForField(const Ref<NSString>& key) const;
    /// Stores a value; nil clears. A nil key is left alone.
    void setValue(const Ref<NSObject>& value, const Ref<NSString>& forField);

private:
    mutable std::mutex mutex_;
    std::map<std::u16string, Ref<NSObject>> values_;
};

} // namespace kf
