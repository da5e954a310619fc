// Texts of the CSSM error codes.
#pragma once

#include "Foundation/NSString.h"
#include "Security/cssmtype.h"

namespace kf {

/// The text of a CSSM error: what went wrong, in one sentence. Nil for a code
/// that is none of CSSM's (cssmerr.h) and for CSSM_OK. Any thread.
Ref<NSString> cssmErrorText(CSSM_RETURN error);

} // namespace kf
