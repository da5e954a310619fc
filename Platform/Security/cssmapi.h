// The application's interface to the Common Security Services Manager (CDSA
// 2.3, Open Group C914).
//
// Every call gives CSSM_OK or an error of cssmerr.h; one that fails leaves its
// output arguments as they were unless it says otherwise. A handle that is not,
// or no longer, valid gives an error. Every call may be made from any thread.
// Buffers handed back are allocated with the memory functions of the attachment
// and belong to the caller.
#pragma once

#include "Security/cssmerr.h"
#include "Security/cssmtype.h"

/// The platform's cryptographic service provider: digests (MD5, SHA-1, SHA-2)
/// and signatures (RSA PKCS #1 v1.5, ECDSA).
extern const CSSM_GUID gGuidAppleCSP;
/// The platform's certificate library: fields of X.509 certificates.
extern const CSSM_GUID gGuidAppleX509CL;

/// Starts CSSM; every other call needs it. May be called again. Version 2.0,
/// scope and hierarchy NONE; `pvcPolicy` points to the wanted policy, NONE, and
/// gets the one in force.
CSSM_RETURN CSSM_Init(const CSSM_VERSION* version, CSSM_PRIVILEGE_SCOPE scope, const CSSM_GUID* callerGuid,
    CSSM_KEY_HIERARCHY keyHierarchy, CSSM_PVC_MODE* pvcPolicy, const void* reserved);

/// Loads a module. Loads are counted: as many unloads take it out again.
CSSM_RETURN CSSM_ModuleLoad(const CSSM_GUID* moduleGuid, CSSM_KEY_HIERARCHY keyHierarchy,
    CSSM_API_ModuleEventHandler eventHandler, void* eventHandlerContext);
/// Takes one load back. The last one is refused (CSSMERR_CSSM_ADDIN_UNLOAD_FAILED)
/// while the module is attached.
CSSM_RETURN CSSM_ModuleUnload(
    const CSSM_GUID* moduleGuid, CSSM_API_ModuleEventHandler eventHandler, void* eventHandlerContext);
/// Attaches a loaded module; every attachment has its own handle and copies the
/// memory functions. No function table: `functionTable` null, count 0.
CSSM_RETURN CSSM_ModuleAttach(const CSSM_GUID* moduleGuid, const CSSM_VERSION* version,
    const CSSM_API_MEMORY_FUNCS* memoryFuncs, std::uint32_t subserviceID, CSSM_SERVICE_TYPE subserviceType,
    CSSM_ATTACH_FLAGS attachFlags, CSSM_KEY_HIERARCHY keyHierarchy, CSSM_FUNC_NAME_ADDR* functionTable,
    std::uint32_t numFunctionTable, const void* reserved, CSSM_MODULE_HANDLE* moduleHandle);
/// Ends an attachment and deletes its contexts. One that fails leaves it attached.
CSSM_RETURN CSSM_ModuleDetach(CSSM_MODULE_HANDLE moduleHandle);

CSSM_RETURN CSSM_CSP_CreateDigestContext(
    CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm, CSSM_CC_HANDLE* contextHandle);
/// `algorithm` joins digest and key ("SHA256WithRSA"), or names the key alone
/// (RSA, ECDSA) where the caller will hand over ready digests. The key is raw:
/// PKCS #8 or, for RSA, PKCS #1 where private; SPKI or PKCS #1 where public; it
/// is copied. `credentials` null.
CSSM_RETURN CSSM_CSP_CreateSignatureContext(CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm,
    const CSSM_ACCESS_CREDENTIALS* credentials, const CSSM_KEY* key, CSSM_CC_HANDLE* contextHandle);
CSSM_RETURN CSSM_DeleteContext(CSSM_CC_HANDLE contextHandle);

/// The digest over all buffers in order. A `digest` without a buffer (Data null)
/// gets one; a buffer of the caller's must be long enough.
CSSM_RETURN CSSM_DigestData(
    CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount, CSSM_DATA* digest);
/// Signs with a private key. `digestAlgorithm` is CSSM_ALGID_NONE, or, where the
/// context names a key alone, tells which digest the one buffer holds.
/// `signature` as CSSM_DigestData's `digest`.
CSSM_RETURN CSSM_SignData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
    CSSM_ALGORITHMS digestAlgorithm, CSSM_DATA* signature);
/// Verifies with a public key; CSSMERR_CSP_VERIFY_FAILED where the signature is not the data's.
CSSM_RETURN CSSM_VerifyData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
    CSSM_ALGORITHMS digestAlgorithm, const CSSM_DATA* signature);

/// The fields of cssmoids.h of one DER certificate, in the order in which they
/// stand there; a version 1 certificate has no version. CSSMERR_CL_UNKNOWN_FORMAT
/// where the bytes are anything but one certificate.
CSSM_RETURN CSSM_CL_CertGetAllFields(
    CSSM_CL_HANDLE clHandle, const CSSM_DATA* cert, std::uint32_t* numberOfFields, CSSM_FIELD** certFields);
/// Frees what CSSM_CL_CertGetAllFields handed out and sets `*fields` to null.
CSSM_RETURN CSSM_CL_FreeFields(CSSM_CL_HANDLE clHandle, std::uint32_t numberOfFields, CSSM_FIELD** fields);

/// Prints "LABEL: TEXT" to standard error, the text being that of a CSSM error
/// or any other status (SecCopyErrorMessageString). A null label prints "error".
void cssmPerror(const char* label, CSSM_RETURN error);
