// Descriptors of database files for looking into them, kept open.
//
// A process that closes any descriptor of a file loses every lock that it holds
// on that file (POSIX.1, fcntl), also those that SQLite holds in another thread
// in the middle of a change: two programs would then write at once. So nothing
// but SQLite opens and closes a database's files.
#pragma once

#include <string>

namespace kf::keychain {

/// A descriptor for reading the file that now stands at a path; not to be closed. -1 with errno where there is none to
/// be had. Any thread.
int keptDescriptor(const std::string& file);

/// Whether somebody, in whatever process, holds a lock that keeps others from writing to the SQLite database at a path.
bool isLockedForWriting(const std::string& file);

/// Closes them all. Only while no database is open and no other thread uses them.
void closeKeptDescriptors();

} // namespace kf::keychain
