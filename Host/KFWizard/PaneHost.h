// What a page asks of the wizard around it.
#pragma once

#include "KFWizard/BackgroundRunner.h"
#include "KFWizard/FieldStore.h"

class QLabel;
class QProgressBar;

namespace kf {

/// Main thread, but for the field store.
class PaneHost {
public:
    virtual ~PaneHost();

    virtual void setNextEnabled(bool enabled) = 0;
    virtual void setPreviousEnabled(bool enabled) = 0;
    virtual QLabel* messageField() = 0;
    virtual QProgressBar* progressIndicator() = 0;
    virtual FieldStore& fields() = 0;
    /// Runs a job to its end, with a message of what is going on where that is not nil.
    virtual void runJob(const BackgroundJob& job, const Ref<NSString>& displayMessage) = 0;
};

} // namespace kf
