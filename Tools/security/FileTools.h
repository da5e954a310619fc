// Files that other programs read while we write them.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>

namespace kf::security {

/// The system's text for an errno.
std::string errorText(int error);

/// A regular file's whole content; nothing where it cannot be read.
std::optional<std::string> readTextFile(const std::string& path);

/// Puts a new file in the place of the old one, whole or not at all, also after
/// a crash; makes the last directory of the path where it is missing. Gives
/// what went wrong; empty for nothing.
std::string writeFileAtomically(const std::string& path, const std::string& content, mode_t mode);

/// An exclusive lock between processes, held by a file that stays, while this
/// object lives.
class FileLock {
public:
    /// Waits for its turn, as long as `patience` lasts.
    FileLock(const std::string& path, std::chrono::milliseconds patience);
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    ~FileLock();

    bool isHeld() const noexcept { return descriptor_ >= 0; }

private:
    int descriptor_ = -1;
};

} // namespace kf::security
