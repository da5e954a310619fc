#include "KFWizard/PageArea.h"

#include <QEvent>
#include <QScrollBar>

#include <algorithm>

namespace kf {

PageArea::PageArea(QWidget* page, int margin)
{
    setObjectName(QStringLiteral("pageArea"));
    setFrameShape(QFrame::NoFrame);
    setWidgetResizable(true);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setFocusPolicy(Qt::NoFocus);
    setViewportMargins(margin, 0, margin, 0);
    setWidget(page);
    page->installEventFilter(this);
    // A stop for the keyboard only where there is something to scroll.
    connect(verticalScrollBar(), &QScrollBar::rangeChanged, this,
        [this](int, int most) { setFocusPolicy(most > 0 ? Qt::StrongFocus : Qt::NoFocus); });
}

bool PageArea::eventFilter(QObject* watched, QEvent* event)
{
    const bool handled = QScrollArea::eventFilter(watched, event);
    if (watched == widget() && event->type() == QEvent::LayoutRequest)
        fitPage();
    return handled;
}

void PageArea::resizeEvent(QResizeEvent* event)
{
    QScrollArea::resizeEvent(event);
    fitPage();
}

void PageArea::showEvent(QShowEvent* event)
{
    QScrollArea::showEvent(event);
    fitPage();
}

// By itself a page would be no smaller than its texts on one line each, which is too low for them.
void PageArea::fitPage()
{
    if (!widget() || !widget()->hasHeightForWidth() || !isVisible())
        return;
    widget()->setMinimumHeight(widget()->heightForWidth(viewport()->width()));
    if (missingHeight() > 0)
        Q_EMIT needsHeight();
}

int PageArea::missingHeight() const
{
    return widget() ? std::max(0, widget()->minimumHeight() - viewport()->height()) : 0;
}

} // namespace kf
