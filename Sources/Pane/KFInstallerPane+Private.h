// What the page's jobs ask of its main thread.
#pragma once

#include "Foundation/NSArray.h"
#include "Pane/KFInstallerPane.h"

namespace Private {

/// Sets a sphere on the main thread and waits until it shows. Any thread.
void setState(KFInstallerPane* pane, std::int32_t state, KFStatusView* forStatusView);
/// The main thread's half: an array of the view (kf::QObjectReference) and the state (NSNumber).
void setStateForStatusView(KFInstallerPane* pane, const Ref<NSArray>& viewAndState);

} // namespace Private
