// A page's view onto which a file may be dropped.
#pragma once

#include <QWidget>

namespace kf {

/// Takes one file of this computer; everything else is refused while it hovers.
class FileDropArea final : public QWidget {
    Q_OBJECT
public:
    explicit FileDropArea(QWidget* parent = nullptr);

Q_SIGNALS:
    void fileDropped(const QString& path);

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;
};

} // namespace kf
