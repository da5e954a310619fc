// Settling what a writer that ended early had begun.
//
// A writer sets down what it means to make, in order, and after each object that
// it made it (Backend.h, WriteTurn). So of a writer that died all is known but
// one thing: whether it still made the object it was at, the first without a
// note, or whether another program has since. What the record does not prove to
// be ours stays, with one exception: a private key that was not there before and
// that no certificate belongs to. A lone certificate does no harm.
#pragma once

#include "Security/Keychain/Backend.h"

namespace kf::keychain {

/// Finishes or takes back what the turn found abandoned, and takes the record away. Where all objects were made, or
/// were there in the end, they stay; else those made go. Needs the writer lock and an unlocked database.
Status settleAbandoned(Database& database, WriteTurn& turn);

/// Removes what an unfinished `intent` made, but for what somebody else has come to need: a certificate with trust or a
/// private key that is not of the intent's making, and that certificate's key.
Status undoMaking(Database& database, const Intent& intent);

} // namespace kf::keychain
