// The colours of messages.
#pragma once

#include <QPalette>

class QWidget;

namespace kf {

/// The palette for an error's text in `view`, readable on a light and on a dark background. The colour is never the
/// only sign of an error.
QPalette errorPalette(const QWidget& view);

} // namespace kf
