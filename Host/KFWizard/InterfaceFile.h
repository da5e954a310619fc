// Interface files: Qt Designer's, loaded at run time.
#pragma once

#include <QStringList>
#include <QWidget>

#include <functional>
#include <memory>

namespace kf {

/// Makes a view of a class that Qt does not have; null for an unknown one.
using ViewFactory = std::function<QWidget*(const QString& className, QWidget* parent)>;

/// Loads an interface file. Its root is a frame that is never shown; the
/// root's children are the page's top-level objects. Null, and `*problem` says
/// why, where the file cannot be read or names a class that nobody makes.
std::unique_ptr<QWidget> loadInterfaceFile(const QString& path, const ViewFactory& factory, QString* problem);

/// Finds the views of an interface file by their object names.
class Outlets {
public:
    explicit Outlets(QWidget* root) : root_(root) { }

    /// The view of that name where it is a T; else null, and the name is kept as missing.
    template <class T>
    T* find(const char* name)
    {
        T* view = root_->findChild<T*>(QLatin1String(name));
        if (!view)
            missing_.append(QLatin1String(name));
        return view;
    }

    const QStringList& missing() const noexcept { return missing_; }

private:
    QWidget* root_;
    QStringList missing_;
};

} // namespace kf
