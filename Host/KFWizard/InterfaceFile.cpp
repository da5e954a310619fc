#include "KFWizard/InterfaceFile.h"

#include <QCoreApplication>
#include <QFile>
#include <QUiLoader>

namespace kf {

namespace {

/// Lets Qt find no plug-ins while it lives. Interface files need Qt's own classes and the page's; Designer's plug-ins,
/// which a loader loads when it is made, would be code from elsewhere, and Qt Quick along with it.
class WithoutPlugIns {
public:
    WithoutPlugIns() : paths_(QCoreApplication::libraryPaths()) { QCoreApplication::setLibraryPaths({}); }
    ~WithoutPlugIns() { QCoreApplication::setLibraryPaths(paths_); }
    WithoutPlugIns(const WithoutPlugIns&) = delete;
    WithoutPlugIns& operator=(const WithoutPlugIns&) = delete;

private:
    QStringList paths_;
};

/// Made while there are no plug-ins.
class Loader final : private WithoutPlugIns, public QUiLoader {
public:
    explicit Loader(const ViewFactory& factory) : factory_(factory) { }

    QWidget* createWidget(const QString& className, QWidget* parent, const QString& name) override
    {
        QWidget* view = factory_(className, parent);
        if (view)
            view->setObjectName(name);
        else if (availableWidgets().contains(className))
            view = QUiLoader::createWidget(className, parent, name);
        else
            unknown_.append(className);
        return view;
    }

    const QStringList& unknown() const noexcept { return unknown_; }

private:
    const ViewFactory& factory_;
    QStringList unknown_;
};

} // namespace

std::unique_ptr<QWidget> loadInterfaceFile(const QString& path, const ViewFactory& factory, QString* problem)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *problem = QCoreApplication::translate("InterfaceFile", "%1 cannot be read: %2.").arg(path, file.errorString());
        return nullptr;
    }
    Loader loader(factory);
    std::unique_ptr<QWidget> root(loader.load(&file));
    if (!root || !loader.unknown().isEmpty()) {
        const QString reason = loader.unknown().isEmpty()
            ? loader.errorString()
            : QCoreApplication::translate("InterfaceFile", "unknown class %1").arg(loader.unknown().first());
        *problem = QCoreApplication::translate("InterfaceFile", "%1 cannot be loaded: %2.").arg(path, reason);
        return nullptr;
    }
    return root;
}

} // namespace kf
