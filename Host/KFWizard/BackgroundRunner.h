// Jobs beside a living interface.
#pragma once

#include "AppKit/Selector.h"

#include <QObject>
#include <QPointer>
#include <QProgressBar>

namespace kf {

/// What a page asks to be run.
struct BackgroundJob {
    Selector selector;
    Ref<NSObject> object;
    QPointer<QProgressBar> progressIndicator; ///< null: none
    double timeout = -1.0;                    ///< seconds; below zero: no limit
};

/// The person leaves: ends every wait for an answer, which would keep a job for ever. Main thread.
void giveUpQuestions();

/// Runs one job at a time on a thread of its own. Main thread.
class BackgroundRunner final : public QObject {
    Q_OBJECT
public:
    /// Runs the job and returns when it has ended; meanwhile the interface
    /// lives, and a request to quit the program waits. A job that passes its
    /// time limit is logged and waited for all the same: it cannot be taken
    /// back half-way. An exception of the job is logged and ends it.
    /// False, with nothing run, where a job is running already.
    bool run(const BackgroundJob& job);

    bool isBusy() const noexcept { return busy_; }

    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void waitFor(const BackgroundJob& job);

    bool busy_ = false;
    bool quitRequested_ = false;
};

} // namespace kf
