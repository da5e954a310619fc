// SFAuthorization(Execute): running tools with administrator rights.
#pragma once

#include "Foundation/NSArray.h"
#include "Security/Authorization.h"

namespace Execute {

/// Runs a tool under an authorization that holds the administrator's right.
///
/// `arguments` are strings, nil or none; each is passed as its UTF-8 form, cut
/// to as many bytes as it has characters (all of it, for ASCII). `pipe`, where
/// not null, receives a stream connected to the tool, owned by the caller.
/// Blocks while it waits.
///
/// Gives the launch's errAuthorization code where the tool could not be
/// started, with an NSOSStatusErrorDomain error in `*error` (where not null);
/// else 0 without waiting, and with waiting the tool's exit status, -1 where it
/// was stopped, was killed or could not be waited for. A tool that ran and
/// failed makes no error. It waits for whichever child of the process changes
/// first: while it runs the process must have no other.
///
/// An argument that is no string or has no UTF-8 form starts nothing
/// (errAuthorizationToolExecuteFailure). A nil authorization gives 0 and starts nothing.
std::int32_t executePrivilegedTool(const Ref<SFAuthorization>& authorization, const Ref<NSString>& path,
    const Ref<NSArray>& arguments, bool waitUntilDone, std::FILE** pipe, Ref<NSError>* error);

/// The English text of an authorization status; unknown ones share one text.
Ref<NSString> stringForAuthorizationError(std::int32_t status);

} // namespace Execute
