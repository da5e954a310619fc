// The category NSData(KeyfoldAdditions): base64 and hexadecimal text.
#pragma once

#include "Foundation/NSData.h"
#include "Foundation/NSString.h"

namespace KeyfoldAdditions {

/// The bytes of base64 text (RFC 4648, standard alphabet), white space anywhere
/// in it ignored. Never fails: text that is not base64, or cut off, gives what
/// OpenSSL's base64 filter decoded before it stopped, possibly nothing. Nil
/// gives data that nobody filled: empty.
Ref<NSData> dataWithBase64EncodedString(const Ref<NSString>& string);

/// The same as an initialiser: `receiver`, which is given up, is handed back
/// untouched for a nil string, else replaced by the decoded bytes.
Ref<NSData> initWithBase64EncodedString(Ref<NSData> receiver, const Ref<NSString>& string);

/// Base64 text in lines of 64 characters, each ended by a newline, the last one
/// too; empty for empty data. The caller owns it. Nil for nil.
Ref<NSString> base64Encoding(const Ref<NSData>& receiver);

/// Two lower-case hexadecimal digits for each byte. Nil for nil.
Ref<NSString> hexString(const Ref<NSData>& receiver);

} // namespace KeyfoldAdditions
