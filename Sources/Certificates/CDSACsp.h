// Digests, signatures and verification by the platform's cryptographic service
// provider, one call for each.
//
// Calling order: cdsaCspAttach, the operations, then cdsaCspDetach. Everything
// gives CSSM_OK or the error of the CSSM call that failed, and prints nothing.
// For one thread at a time: CSSM's start-up is not guarded.
#pragma once

#include "Security/cssmapi.h"

/// The memory functions given to CSSM: the C library's. `allocRef` is ignored.
void* appMalloc(std::uint32_t size, void* allocRef);
void appFree(void* memory, void* allocRef);
void* appRealloc(void* memory, std::uint32_t size, void* allocRef);
void* appCalloc(std::uint32_t count, std::uint32_t size, void* allocRef);

/// Starts CSSM, once in a process. A start that failed is tried again by the next call.
CSSM_RETURN cssmStartup();

/// Starts CSSM where that is still to do, loads the module and attaches it.
/// `*handle` is written on success only. A step that fails undoes none before it.
CSSM_RETURN cdsaCspAttach(CSSM_CSP_HANDLE* handle);
/// Detaches; the module stays loaded.
CSSM_RETURN cdsaCspDetach(CSSM_CSP_HANDLE handle);

/// The digest of `input`. `digest->Data` is allocated with appMalloc and the
/// caller's to free; on failure `*digest` is empty.
CSSM_RETURN cdsaDigest(CSSM_CSP_HANDLE handle, CSSM_ALGORITHMS algorithm, const CSSM_DATA* input, CSSM_DATA* digest);

/// Signs `input` with a private key. A signature with null Data gets a buffer
/// from appMalloc; a buffer already there is used and must be long enough.
CSSM_RETURN cdsaSign(CSSM_CSP_HANDLE handle, const CSSM_KEY* key, CSSM_ALGORITHMS algorithm, const CSSM_DATA* input,
    CSSM_DATA* signature);
/// Verifies a signature with a public key; a wrong one is an error like any other.
CSSM_RETURN cdsaVerify(CSSM_CSP_HANDLE handle, const CSSM_KEY* key, CSSM_ALGORITHMS algorithm, const CSSM_DATA* input,
    const CSSM_DATA* signature);
