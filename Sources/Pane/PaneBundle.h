// The bundle of this plug-in's code.
#pragma once

#include "Foundation/NSBundle.h"

namespace kf {

/// Nil where the code was not loaded from a bundle.
Ref<NSBundle> paneBundle();

} // namespace kf
