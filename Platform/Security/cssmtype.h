// Types and constants of the Common Security Services Manager (CDSA 2.3, The
// Open Group, C914), as far as this system uses them.
#pragma once

#include <cstddef>
#include <cstdint>

using CSSM_RETURN = std::uint32_t;
using CSSM_BOOL = std::int32_t;
using CSSM_SIZE = std::size_t;
using CSSM_HANDLE = std::uint64_t;
using CSSM_MODULE_HANDLE = CSSM_HANDLE;
using CSSM_CSP_HANDLE = CSSM_MODULE_HANDLE;
using CSSM_CL_HANDLE = CSSM_MODULE_HANDLE;
using CSSM_CC_HANDLE = std::uint64_t;

inline constexpr CSSM_RETURN CSSM_OK = 0;

/// Bytes with their length; who frees them is said where they are handed over.
struct CSSM_DATA {
    CSSM_SIZE Length = 0;
    std::uint8_t* Data = nullptr;
};
using CSSM_OID = CSSM_DATA;

struct CSSM_GUID {
    std::uint32_t Data1;
    std::uint16_t Data2;
    std::uint16_t Data3;
    std::uint8_t Data4[8];

    friend bool operator==(const CSSM_GUID&, const CSSM_GUID&) = default;
};

struct CSSM_VERSION {
    std::uint32_t Major;
    std::uint32_t Minor;
};

using CSSM_MALLOC = void* (*)(std::uint32_t size, void* allocRef);
using CSSM_FREE = void (*)(void* memory, void* allocRef);
using CSSM_REALLOC = void* (*)(void* memory, std::uint32_t size, void* allocRef);
using CSSM_CALLOC = void* (*)(std::uint32_t count, std::uint32_t size, void* allocRef);

/// The functions with which a module allocates what it hands to the application.
struct CSSM_API_MEMORY_FUNCS {
    CSSM_MALLOC malloc_func;
    CSSM_FREE free_func;
    CSSM_REALLOC realloc_func;
    CSSM_CALLOC calloc_func;
    void* AllocRef;
};

using CSSM_PRIVILEGE_SCOPE = std::uint32_t;
inline constexpr CSSM_PRIVILEGE_SCOPE CSSM_PRIVILEGE_SCOPE_NONE = 0;
using CSSM_KEY_HIERARCHY = std::uint32_t;
inline constexpr CSSM_KEY_HIERARCHY CSSM_KEY_HIERARCHY_NONE = 0;
using CSSM_PVC_MODE = std::uint32_t;
inline constexpr CSSM_PVC_MODE CSSM_PVC_NONE = 0;
using CSSM_ATTACH_FLAGS = std::uint32_t;

using CSSM_SERVICE_MASK = std::uint32_t;
using CSSM_SERVICE_TYPE = CSSM_SERVICE_MASK;
inline constexpr CSSM_SERVICE_TYPE CSSM_SERVICE_CSP = 0x02;
inline constexpr CSSM_SERVICE_TYPE CSSM_SERVICE_CL = 0x08;

using CSSM_MODULE_EVENT = std::uint32_t;
/// Told of insertion, removal and faults of a module. The modules here are
/// always there and never call it.
using CSSM_API_ModuleEventHandler = CSSM_RETURN (*)(const CSSM_GUID* moduleGuid, void* context,
    std::uint32_t subserviceId, CSSM_SERVICE_TYPE serviceType, CSSM_MODULE_EVENT eventType);
/// A name and the function of that name, for callers that link dynamically.
struct CSSM_FUNC_NAME_ADDR {
    char Name[68];
    void (*Address)();
};

using CSSM_ALGORITHMS = std::uint32_t;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_NONE = 0;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_MD5 = 7;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA1 = 8;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_RSA = 42;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_MD5WithRSA = 44;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA1WithRSA = 51;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_ECDSA = 73;
/// Where algorithms begin that the standard does not number: this platform's own.
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_VENDOR_DEFINED = 0x80000000U;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA224 = CSSM_ALGID_VENDOR_DEFINED + 1;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA256 = CSSM_ALGID_VENDOR_DEFINED + 2;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA384 = CSSM_ALGID_VENDOR_DEFINED + 3;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA512 = CSSM_ALGID_VENDOR_DEFINED + 4;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA224WithRSA = CSSM_ALGID_VENDOR_DEFINED + 5;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA256WithRSA = CSSM_ALGID_VENDOR_DEFINED + 6;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA384WithRSA = CSSM_ALGID_VENDOR_DEFINED + 7;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA512WithRSA = CSSM_ALGID_VENDOR_DEFINED + 8;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA1WithECDSA = CSSM_ALGID_VENDOR_DEFINED + 9;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA224WithECDSA = CSSM_ALGID_VENDOR_DEFINED + 10;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA256WithECDSA = CSSM_ALGID_VENDOR_DEFINED + 11;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA384WithECDSA = CSSM_ALGID_VENDOR_DEFINED + 12;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA512WithECDSA = CSSM_ALGID_VENDOR_DEFINED + 13;

using CSSM_CERT_TYPE = std::uint32_t;
inline constexpr CSSM_CERT_TYPE CSSM_CERT_X_509v3 = 3;
using CSSM_CERT_ENCODING = std::uint32_t;
inline constexpr CSSM_CERT_ENCODING CSSM_CERT_ENCODING_DER = 3;

using CSSM_HEADERVERSION = std::uint32_t;
inline constexpr CSSM_HEADERVERSION CSSM_KEYHEADER_VERSION = 2;
using CSSM_KEYBLOB_TYPE = std::uint32_t;
inline constexpr CSSM_KEYBLOB_TYPE CSSM_KEYBLOB_RAW = 0;
inline constexpr CSSM_KEYBLOB_TYPE CSSM_KEYBLOB_REFERENCE = 2;
using CSSM_KEYBLOB_FORMAT = std::uint32_t;
inline constexpr CSSM_KEYBLOB_FORMAT CSSM_KEYBLOB_RAW_FORMAT_PKCS1 = 1;
inline constexpr CSSM_KEYBLOB_FORMAT CSSM_KEYBLOB_RAW_FORMAT_PKCS8 = 10;
inline constexpr CSSM_KEYBLOB_FORMAT CSSM_KEYBLOB_RAW_FORMAT_SPKI = 11;
using CSSM_KEYCLASS = std::uint32_t;
inline constexpr CSSM_KEYCLASS CSSM_KEYCLASS_PUBLIC_KEY = 0;
inline constexpr CSSM_KEYCLASS CSSM_KEYCLASS_PRIVATE_KEY = 1;
inline constexpr CSSM_KEYCLASS CSSM_KEYCLASS_SESSION_KEY = 2;
using CSSM_ENCRYPT_MODE = std::uint32_t;
inline constexpr CSSM_ENCRYPT_MODE CSSM_ALGMODE_NONE = 0;

using CSSM_KEYUSE = std::uint32_t;
inline constexpr CSSM_KEYUSE CSSM_KEYUSE_ANY = 0x80000000U;
inline constexpr CSSM_KEYUSE CSSM_KEYUSE_SIGN = 0x04;
inline constexpr CSSM_KEYUSE CSSM_KEYUSE_VERIFY = 0x08;
using CSSM_KEYATTR_FLAGS = std::uint32_t;
inline constexpr CSSM_KEYATTR_FLAGS CSSM_KEYATTR_SENSITIVE = 0x08;
inline constexpr CSSM_KEYATTR_FLAGS CSSM_KEYATTR_EXTRACTABLE = 0x20;

/// A calendar day in ASCII digits; all zero where there is none.
struct CSSM_DATE {
    std::uint8_t Year[4];
    std::uint8_t Month[2];
    std::uint8_t Day[2];
};

struct CSSM_KEYHEADER {
    CSSM_HEADERVERSION HeaderVersion = CSSM_KEYHEADER_VERSION;
    CSSM_GUID CspId{};
    CSSM_KEYBLOB_TYPE BlobType = CSSM_KEYBLOB_RAW;
    CSSM_KEYBLOB_FORMAT Format = 0;
    CSSM_ALGORITHMS AlgorithmId = CSSM_ALGID_NONE;
    CSSM_KEYCLASS KeyClass = CSSM_KEYCLASS_PUBLIC_KEY;
    std::uint32_t LogicalKeySizeInBits = 0;
    CSSM_KEYATTR_FLAGS KeyAttr = 0;
    CSSM_KEYUSE KeyUsage = CSSM_KEYUSE_ANY;
    CSSM_DATE StartDate{};
    CSSM_DATE EndDate{};
    CSSM_ALGORITHMS WrapAlgorithmId = CSSM_ALGID_NONE;
    CSSM_ENCRYPT_MODE WrapMode = CSSM_ALGMODE_NONE;
    std::uint32_t Reserved = 0;
};

/// A key in clear: what its data hold is told by its header.
struct CSSM_KEY {
    CSSM_KEYHEADER KeyHeader;
    CSSM_DATA KeyData;
};

/// Credentials for keys that are guarded by access control lists; the keys here
/// are not, so that every call gets null.
struct CSSM_ACCESS_CREDENTIALS;

/// One field of a certificate: which one, and its value.
struct CSSM_FIELD {
    CSSM_OID FieldOid;
    CSSM_DATA FieldValue;
};

using CSSM_DB_ATTRIBUTE_FORMAT = std::uint32_t;
inline constexpr CSSM_DB_ATTRIBUTE_FORMAT CSSM_DB_ATTRIBUTE_FORMAT_STRING = 0;

/// Identifier of the basic X.509 trust policy.
extern const CSSM_OID CSSMOID_APPLE_X509_BASIC;
