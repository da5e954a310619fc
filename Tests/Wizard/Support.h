// What GUI tests share.
#pragma once

#include "Foundation/NSLog.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QTest>
#include <QTimer>
#include <QWidget>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace kf::test {

/// The widget of that name, which must be there.
template <class T = QWidget>
T* find(QObject* root, const char* name)
{
    T* widget = root->findChild<T*>(QLatin1String(name));
    EXPECT_NE(widget, nullptr) << "there is no " << name;
    return widget;
}

/// Runs `act` as soon as a dialog of that name is open; `seen` counts the dialogs.
/// A dialog that never comes lets the test's own expectations fail.
class WhenDialogOpens {
public:
    WhenDialogOpens(const char* name, std::function<void(QWidget*)> act) : name_(name), act_(std::move(act))
    {
        QObject::connect(&timer_, &QTimer::timeout, [this] { look(); });
        timer_.start(10);
    }
    int seen() const noexcept { return seen_; }

private:
    void look()
    {
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (widget->objectName() == QLatin1String(name_) && widget->isVisible()) {
                timer_.stop();
                ++seen_;
                act_(widget);
                return;
            }
        }
    }

    const char* name_;
    std::function<void(QWidget*)> act_;
    QTimer timer_;
    int seen_ = 0;
};

/// Ends the application's event loop with status 99 where a test does not.
class Deadline {
public:
    explicit Deadline(int milliseconds = 60000)
    {
        QObject::connect(&timer_, &QTimer::timeout, [] { QCoreApplication::exit(99); });
        timer_.start(milliseconds);
    }

private:
    QTimer timer_;
};

/// The lines that are logged while it lives.
class LogLines {
public:
    LogLines()
        : observer_([this](const std::string& line) {
              const std::lock_guard lock(mutex_);
              lines_.push_back(line);
          })
    {
    }
    std::vector<std::string> lines() const
    {
        const std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    NSLogObserver observer_;
};

} // namespace kf::test
