// Which identity to use for a name: one small file for each name, in a folder
// of the user's data directory (XDG Base Directory Specification).
//
// The file is named after the SHA-256 of the name, so that any bytes can be a
// name, and holds the name and the SHA-256 of the identity's certificate. What
// is no such record is damaged: it is told so, and never thrown away.
#pragma once

#include "Security/Certificate/CertificateFields.h"

#include <string_view>

namespace kf {

/// The digest of the certificate that is recorded for a name. Errors:
/// errSecItemNotFound without a record, errSecPreferenceDamaged,
/// errSecNoDefaultKeychain without a home folder, errSecIO. Any thread.
Result<Digest> readIdentityPreference(std::string_view name);

/// Records a certificate for a name, safe from a crash: the file holds the old
/// record or the new one. What stands there and is no record is moved aside
/// first, to a name that ends in ".damaged" and a number. Errors: errSecWrPerm
/// where the folder is somebody else's or may not be written, errSecPreferenceDamaged
/// where something else stands in the folder's place, errSecNoDefaultKeychain,
/// errSecIO. Any thread; of two writers the later one wins.
Status writeIdentityPreference(std::string_view name, const Digest& certificate);

} // namespace kf
