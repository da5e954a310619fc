// What batch mode would do.
#pragma once

#include "keyfold/BatchReport.h"
#include "keyfold/BundleCheck.h"

namespace kf {

/// Looks at every store and reports what a run with the bundle that was checked would do; changes nothing. True where
/// the personal certificate would be installed, as far as can be seen beforehand.
bool reportDryRun(const BundleCheck& check, const BundleRequest& request, bool deleteOld, BatchReport& report);

} // namespace kf
