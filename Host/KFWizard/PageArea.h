// The room that a wizard's window has for a page.
#pragma once

#include <QScrollArea>

namespace kf {

/// Gives its page the height that its texts need at the present width, and asks for more room where there is less; what
/// does not fit then can be scrolled to, by keyboard too.
class PageArea final : public QScrollArea {
    Q_OBJECT
public:
    /// `margin`: pixels to the left and the right of the page, inside the scroll bar.
    PageArea(QWidget* page, int margin);

    /// How many pixels of the page do not fit.
    int missingHeight() const;

    bool eventFilter(QObject* watched, QEvent* event) override;

Q_SIGNALS:
    /// The page does not fit.
    void needsHeight();

protected:
    void resizeEvent(QResizeEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    void fitPage();
};

} // namespace kf
