// The desktop.
#pragma once

#include "Foundation/NSString.h"

/// Main thread.
class NSWorkspace {
public:
    static NSWorkspace& sharedWorkspace();

    /// Opens an address in the program that the desktop has for it. False for
    /// nil, for what is no web or mail address, and where no program was started.
    bool openURL(const Ref<NSString>& url);
};
