// A sphere that shows how a job went.
#pragma once

#include "Foundation/NSDictionary.h"

#include <QIcon>
#include <QLabel>

/// 1 shows the green sphere (success), 0 the red one (failure), every other
/// state the gray one (working, not known yet). A new view is in state 0. The
/// accessible description says the same in words. Main thread.
class KFStatusView final : public QLabel {
    Q_OBJECT
    Q_PROPERTY(qlonglong state READ state WRITE setState)
public:
    /// A view of an interface file.
    explicit KFStatusView(QWidget* parent = nullptr);
    KFStatusView(const QRect& frame, QWidget* parent);

    NSInteger state() const noexcept { return state_; }
    /// Stores the state and tells the observer, whether it changed or not.
    void setState(NSInteger state);

    /// Shows the image of the current state where `keyPath` is "state"; the others are not looked at.
    void observeValueForKeyPath(
        const Ref<NSString>& keyPath, QObject* object, const Ref<NSDictionary>& change, void* context);

private:
    void initialize();
    void setImage(const QIcon& image);

    QIcon onImage_;
    QIcon offImage_;
    QIcon mixedImage_;
    NSInteger state_ = 0;
};
