// Text between the platform and Qt.
#pragma once

#include "Foundation/NSString.h"

#include <QString>

namespace kf {

/// Nil gives a null string; unpaired surrogates stay as they are.
QString toQString(const Ref<NSString>& string);
/// A null string gives nil.
Ref<NSString> toNSString(const QString& string);

} // namespace kf
