// Starting programs as children of this process.
#pragma once

#include "Security/Result.h"
#include "Security/ScopedDescriptor.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kf::authorization {

/// A program, and what it gets from this process. It gets descriptors 0 to 2
/// only, and every signal in its default state.
struct ChildProgram {
    std::string path = {};                                              ///< absolute
    std::vector<std::string> arguments = {};                            ///< without the program's name
    std::optional<std::vector<std::string>> environment = std::nullopt; ///< "NAME=value" each; none: this process's own
    int input = -1;                                                     ///< becomes descriptor 0; -1: /dev/null
    int output = -1;         ///< becomes descriptor 1; -1: this process's own
    int errors = -1;         ///< becomes descriptor 2; -1: this process's own
    bool leadsGroup = false; ///< whether it gets a process group of its own
};

/// Starts a program and gives its process number; the caller waits for it.
/// After a failure, errAuthorizationToolExecuteFailure, there is no child.
Result<pid_t> startChild(const ChildProgram& program);

/// Becomes readable when a child has ended, for a child may leave others behind that hold what it was given.
ScopedDescriptor watchChild(pid_t child);

/// Waits for one child to end and gives its exit status; -1 where it did not exit.
int waitForChild(pid_t child) noexcept;

/// Two ends that are closed at an exec and lie above the standard descriptors.
struct DescriptorPair {
    ScopedDescriptor ours{-1};
    ScopedDescriptor theirs{-1};
    explicit operator bool() const noexcept { return ours.get() >= 0 && theirs.get() >= 0; }
};

/// A pipe, to be read at our end.
DescriptorPair makePipe();
/// A connection in both directions.
DescriptorPair makeConnection();

} // namespace kf::authorization
