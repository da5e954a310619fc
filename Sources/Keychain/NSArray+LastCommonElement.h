// NSArray(LastCommonElement).
#pragma once

#include "Foundation/NSArray.h"

namespace LastCommonElement {

/// The last element of the run in which two arrays begin alike, compared by
/// value; nil where they differ from the start. Where one array ends before a
/// difference is met, nil too: only a fork has a last common element.
Ref<NSObject> lastCommonElementWithArray(const Ref<NSArray>& array, const Ref<NSArray>& other);

} // namespace LastCommonElement
