// The system log.
#pragma once

#include "Foundation/NSFormat.h"

#include <functional>
#include <memory>
#include <vector>

/// Writes one line to the system log (syslog, facility user) and, where
/// standard error is a terminal, to it too. The line may hold newlines of its
/// own; it is delivered whole. Any thread. Never pass a secret.
void NSLogMessage(const Ref<NSString>& line);

template <class... Arguments>
void NSLog(std::string_view format, const Arguments&... arguments)
{
    NSLogMessage(NSStringWithFormat(format, arguments...));
}

/// While it lives, `receive` gets every line that is logged in this process,
/// in order, one call at a time, on the thread that logs. For batch mode's
/// report and for tests.
class NSLogObserver {
public:
    explicit NSLogObserver(std::function<void(const std::string& line)> receive);
    ~NSLogObserver();
    NSLogObserver(const NSLogObserver&) = delete;
    NSLogObserver& operator=(const NSLogObserver&) = delete;

private:
    std::shared_ptr<const std::function<void(const std::string& line)>> receive_;
};
