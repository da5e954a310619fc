// What pages and dialogs share in how they look.
#pragma once

class QWidget;

namespace kf {

/// Lets the texts below `view` begin where its layout does, whatever way they are written, and gives its buttons room
/// around their titles, however large the letters. Main thread; once the view is complete.
void shapeTexts(QWidget& view);

} // namespace kf
