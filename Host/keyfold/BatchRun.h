// The installer page without a display.
#pragma once

#include "keyfold/CommandLine.h"

namespace kf {

/// Runs the page on a window that nobody sees and prints what a person would
/// have read. Makes the program's QApplication.
int runBatch(const CommandLine& line, char* program);

} // namespace kf
