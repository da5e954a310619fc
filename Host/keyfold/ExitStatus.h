// What the program's end tells its caller; docs/batch.md documents the numbers.
#pragma once

namespace kf {

enum ExitStatus : int {
    exitInstalled = 0,    ///< the personal certificate was installed; in a window: closed by the person
    exitNotInstalled = 1, ///< the page ran, and the personal certificate was not installed
    exitWrongUsage = 2,   ///< the command line was not understood; nothing was done
    exitUnreadable = 3,   ///< the bundle or the pass phrase could not be read; nothing was done
    exitNoPage = 4,       ///< the installer page could not be loaded; nothing was done
    exitNoDisplay = 5,    ///< there is no display for a window
    exitIncomplete = 6,   ///< installed, but the output or the picture could not be written
};

} // namespace kf
