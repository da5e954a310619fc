#include "Pane/KFInstallerPane+Private.h"

#include "AppKit/MainThread.h"
#include "AppKit/QObjectReference.h"
#include "Foundation/NSNumber.h"

namespace Private {

void setState(KFInstallerPane* pane, std::int32_t state, KFStatusView* forStatusView)
{
    const Ref<NSArray> viewAndState =
        NSArray::arrayWithObjects({kf::QObjectReference::referenceTo(forStatusView), NSNumber::numberWithInt(state)});
    const kf::Selector half = {"setStateForStatusView:",
        [pane](const Ref<NSObject>& object) { setStateForStatusView(pane, refCast<NSArray>(object)); }};
    performSelectorOnMainThread(half, viewAndState, true);
}

void setStateForStatusView(KFInstallerPane*, const Ref<NSArray>& viewAndState)
{
    if (countOf(viewAndState) != 2)
        return;
    const auto reference = viewAndState->objectAs<kf::QObjectReference>(0);
    const auto number = viewAndState->objectAs<NSNumber>(1);
    KFStatusView* view = reference ? reference->objectAs<KFStatusView>() : nullptr;
    if (view && number)
        view->setState(number->intValue());
}

} // namespace Private
