// What batch mode prints.
#pragma once

#include <QString>

#include <cstdio>

namespace kf {

/// Prints a line, at once. What cannot be written shows in std::ferror(stdout) at the end.
inline void print(const QString& line)
{
    std::printf("%s\n", line.toUtf8().constData());
    std::fflush(stdout);
}

} // namespace kf
