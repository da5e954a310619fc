// Whoever starts a test program, and however, root too: it changes nothing that everybody on the machine trusts.
// Programs that it starts inherit that.

#include <cstdlib>

namespace {

[[maybe_unused]] const int withoutRights = ::setenv("KEYFOLD_AUTHORIZATION", "none", 0);

} // namespace
