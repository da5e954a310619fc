// A Qt object inside the platform's collections.
#pragma once

#include "Foundation/NSObject.h"

#include <QObject>
#include <QPointer>

namespace kf {

/// Borrows a Qt object; reads as null once that is gone. The reference may
/// travel between threads; its object is used on the main thread only.
class QObjectReference final : public NSObject {
public:
    static Ref<QObjectReference> referenceTo(QObject* object)
    {
        return Ref<QObjectReference>::adopt(new QObjectReference(object));
    }

    /// The object as a T; null where it is none or gone. Main thread.
    template <class T>
    T* objectAs() const
    {
        return qobject_cast<T*>(object_.data());
    }

    const char* className() const noexcept override { return "QObjectReference"; }

private:
    explicit QObjectReference(QObject* object) : object_(object) { }

    QPointer<QObject> object_;
};

} // namespace kf
