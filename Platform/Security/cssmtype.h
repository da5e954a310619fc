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
};

struct CSSM_VERSION {
    std::uint32_t Major;
    std::uint32_t Minor;
};

using CSSM_ALGORITHMS = std::uint32_t;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_NONE = 0;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_MD5 = 7;
inline constexpr CSSM_ALGORITHMS CSSM_ALGID_SHA1 = 8;

using CSSM_CERT_TYPE = std::uint32_t;
inline constexpr CSSM_CERT_TYPE CSSM_CERT_X_509v3 = 3;
using CSSM_CERT_ENCODING = std::uint32_t;
inline constexpr CSSM_CERT_ENCODING CSSM_CERT_ENCODING_DER = 3;

using CSSM_KEYUSE = std::uint32_t;
inline constexpr CSSM_KEYUSE CSSM_KEYUSE_ANY = 0x80000000U;
using CSSM_KEYATTR_FLAGS = std::uint32_t;
inline constexpr CSSM_KEYATTR_FLAGS CSSM_KEYATTR_SENSITIVE = 0x08;
inline constexpr CSSM_KEYATTR_FLAGS CSSM_KEYATTR_EXTRACTABLE = 0x20;

using CSSM_DB_ATTRIBUTE_FORMAT = std::uint32_t;
inline constexpr CSSM_DB_ATTRIBUTE_FORMAT CSSM_DB_ATTRIBUTE_FORMAT_STRING = 0;

/// Identifier of the basic X.509 trust policy.
extern const CSSM_OID CSSMOID_APPLE_X509_BASIC;
