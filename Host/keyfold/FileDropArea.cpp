#include "keyfold/FileDropArea.h"

#include <QDragEnterEvent>
#include <QFileInfo>
#include <QMimeData>
#include <QUrl>

namespace kf {

namespace {

/// Empty where it is anything but one file.
QString droppedFile(const QMimeData* data)
{
    const QList<QUrl> urls = data ? data->urls() : QList<QUrl>();
    const QString path = urls.size() == 1 ? urls.first().toLocalFile() : QString();
    return QFileInfo(path).isFile() ? path : QString();
}

} // namespace

FileDropArea::FileDropArea(QWidget* parent) : QWidget(parent) { setAcceptDrops(true); }

void FileDropArea::dragEnterEvent(QDragEnterEvent* event)
{
    if (!droppedFile(event->mimeData()).isEmpty())
        event->acceptProposedAction();
}

void FileDropArea::dropEvent(QDropEvent* event)
{
    const QString path = droppedFile(event->mimeData());
    if (path.isEmpty())
        return;
    event->acceptProposedAction();
    Q_EMIT fileDropped(path);
}

} // namespace kf
