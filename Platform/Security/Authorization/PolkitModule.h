// The module that asks polkit's authority. It is loaded for a question: the bus brings seven libraries along, and most
// processes ask none.
#pragma once

#include "Security/Authorization.h"

inline constexpr const char* polkitModuleName = "libKeyfoldPolkit.so";

/// Asks whether this process may do an action, and a person where `interactionAllowed`. Waits as long as the person
/// does, unless the descriptor `givenUp` becomes readable. Errors as PolkitBackend::obtainRight.
extern "C" OSStatus keyfoldCheckAuthorization(const char* action, bool interactionAllowed, int givenUp);
