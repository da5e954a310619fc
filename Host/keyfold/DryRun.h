// What batch mode would do.
#pragma once

#include "keyfold/BatchReport.h"
#include "keyfold/BundleCheck.h"

namespace kf {

/// Looks at the bundle and at every store and reports what a run would do; changes nothing. True where the personal
/// certificate would be installed, as far as can be seen beforehand.
bool reportDryRun(const BundleRequest& request, bool deleteOld, BatchReport& report);

} // namespace kf
