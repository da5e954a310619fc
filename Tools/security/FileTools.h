// Files that other programs read while we write them.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kf::security {

/// The system's text for an errno.
std::string errorText(int error);

/// A text of others as it may be shown: control characters, which could pass for lines of ours, are escaped.
std::string shownText(const std::string& text);

/// A file's whole content, or why there is none.
struct FileContent {
    std::optional<std::string> text;
    std::string error;
    bool isMissing = false; ///< nothing stands there; told in `error` too
};

/// Reads a regular file of at most `sizeLimit` bytes. It is opened once, without
/// waiting; with `followsLink` unset not through a link at the path's end.
FileContent readFile(const std::string& path, std::size_t sizeLimit, bool followsLink = false);

/// Puts a new file in the place of the old one, whole or not at all, also after
/// a crash, and reads it back. Owner and mode of an old one are kept; a new one
/// gets `mode`. What a crash leaves beside it is gone after the next call. One
/// writer at a time. Gives what went wrong; empty for nothing.
std::string writeFileAtomically(const std::string& path, const std::string& content, mode_t mode);

/// Deletes what a crash left beside a file. Gives what went wrong; empty for nothing.
std::string removeLeftover(const std::string& path);

/// Deletes a file, and what a crash left beside it; none there is no failure.
/// Gives what went wrong; empty for nothing.
std::string removeFile(const std::string& path);

/// The directories of a path, from the top, that are not there.
std::vector<std::string> missingDirectories(const std::string& directory);

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
