// The connection between a tool and whoever runs it.
#pragma once

#include "Security/Authorization/ChildProcess.h"

#include <cstdio>
#include <memory>

namespace kf::authorization {

/// The connection that a caller may ask for: the tool's end is a descriptor,
/// ours a stream that the caller gets when the tool has been started.
class ToolPipe {
public:
    explicit ToolPipe(bool wanted) : wanted_(wanted)
    {
        if (!wanted)
            return;
        DescriptorPair pair = makeConnection();
        if (!pair)
            return;
        theirs_ = std::move(pair.theirs);
        stream_.reset(::fdopen(pair.ours.get(), "r+"));
        if (stream_)
            static_cast<void>(pair.ours.leak());
    }

    /// Whether it is there, or not wanted.
    explicit operator bool() const noexcept { return !wanted_ || stream_; }
    /// The tool's end; -1 where none is wanted.
    int theirs() const noexcept { return theirs_.get(); }
    /// Gives our end away.
    void handTo(std::FILE** pipe) noexcept
    {
        if (pipe)
            *pipe = stream_.release();
    }

private:
    struct StreamCloser {
        void operator()(std::FILE* stream) const noexcept { std::fclose(stream); }
    };

    bool wanted_;
    ScopedDescriptor theirs_{-1};
    std::unique_ptr<std::FILE, StreamCloser> stream_;
};

} // namespace kf::authorization
