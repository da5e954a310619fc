// The files of an NSS database, looked at before NSS sees them.
//
// NSS takes a zero-length or missing file for a new database, and tells a
// missing directory, a damaged file and a lack of rights all by one error.
#pragma once

#include "Security/Keychain/Backend.h"
#include "Security/ScopedDescriptor.h"

#include <string>

namespace kf::keychain {

/// Which files stand at a path. They differ once the directory or a file in it was made anew.
struct FileIdentity {
    std::array<std::uint64_t, 6> numbers{};
    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

struct DatabaseFiles {
    FileIdentity identity;
    /// errSecSuccess, or why these files are not to be written: errSecWrPerm where they are not this user's or, for
    /// root, stand below somebody else's folder, errSecReadOnly where they may not be.
    OSStatus writing = errSecSuccess;
    bool keysReadable = true;
};

/// Checks directory and files. Errors: errSecNoSuchKeychain,
/// errSecKeychainWrongType, errSecKeychainUnreadable, errSecKeychainIncomplete,
/// errSecKeychainEmpty, errSecInvalidKeychain, errSecKeychainPathTooLong.
Result<DatabaseFiles> inspectDatabase(const std::string& path);

/// True where the directory holds one of the database's files, whatever its state.
bool holdsDatabaseFiles(const std::string& path);

/// Whether a program, this one or another, is in the middle of a change of a database.
bool isBeingWritten(const std::string& path);

/// Sizes, inodes and SQLite's change counters (SQLite file format, 1.3.7).
Result<Generation> databaseGeneration(const std::string& path);

/// A directory beside the future database in which it is made; nobody sees a
/// half-made database. Removed, with what is in it, unless it was moved.
class NewDatabase {
public:
    /// Makes the parents too (0700, or 0755 where everybody is to read certificates). A link to a folder is followed.
    /// errSecWrPerm where they belong to somebody else, errSecReadOnly where this user may not write there,
    /// errSecKeychainWrongType where something else or a link to nothing stands in the way, errSecKeychainPathTooLong.
    /// The log tells which path is meant.
    static Result<std::unique_ptr<NewDatabase>> begin(const std::string& path, bool readableByAll);
    /// Whether a maker died while it moved the files one by one, and the rest of them stands in its place now.
    static bool finishMove(const std::string& path);
    NewDatabase(const NewDatabase&) = delete;
    NewDatabase& operator=(const NewDatabase&) = delete;
    ~NewDatabase();

    const std::string& directory() const noexcept { return directory_; }
    /// Moves the files to their place, over nothing. Success also where somebody else has made a database there
    /// meanwhile: theirs stays.
    Status moveIntoPlace();

private:
    NewDatabase(std::string path, bool readableByAll, ScopedDescriptor parentLock) noexcept;

    std::string path_;
    std::string directory_;
    bool readableByAll_;
    ScopedDescriptor parentLock_;
};

} // namespace kf::keychain
