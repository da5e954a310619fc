// The certificate's bytes, on their way to the tool.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kf::launcher {

using Bytes = std::vector<std::uint8_t>;

/// A file's bytes, or why there are none.
struct FileContent {
    std::optional<Bytes> bytes;
    std::string error;
};

/// Reads a regular file of at most 64 KiB: with the rights of `reader`, a user
/// of this machine, so that nobody learns of a file that is not theirs; opened
/// once; a link at the end of the path is not followed.
FileContent readAs(uid_t reader, const std::string& path);

/// Whether the bytes are those that a digest file is about (SHA-256, hexadecimal,
/// at its beginning). A digest counts only in a regular file that belongs to
/// `owner` and that nobody else can write.
bool matchesDigest(const Bytes& bytes, const std::string& digestFile, uid_t owner);

/// Puts the bytes into a file without a name that nobody can change any more,
/// at exactly this descriptor, which stays open through an exec. Whether that worked.
bool passBytes(const Bytes& bytes, int descriptor);

} // namespace kf::launcher
