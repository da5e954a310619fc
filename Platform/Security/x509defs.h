// Decoded forms of a certificate's parts (CDSA, "Data Structures for X.509
// Certificates"). A field value in one of these forms is one block of memory:
// what it points to lies inside the block.
#pragma once

#include "Security/cssmtype.h"

/// The identifier octet of an ASN.1 value.
using CSSM_BER_TAG = std::uint8_t;
inline constexpr CSSM_BER_TAG BER_TAG_UTF8_STRING = 12;
inline constexpr CSSM_BER_TAG BER_TAG_PRINTABLE_STRING = 19;
inline constexpr CSSM_BER_TAG BER_TAG_T61_STRING = 20;
inline constexpr CSSM_BER_TAG BER_TAG_IA5_STRING = 22;
inline constexpr CSSM_BER_TAG BER_TAG_UTC_TIME = 23;
inline constexpr CSSM_BER_TAG BER_TAG_GENERALIZED_TIME = 24;
inline constexpr CSSM_BER_TAG BER_TAG_UNIVERSAL_STRING = 28;
inline constexpr CSSM_BER_TAG BER_TAG_BMP_STRING = 30;

/// One attribute of a name: its type, and the content octets of its value.
struct CSSM_X509_TYPE_VALUE_PAIR {
    CSSM_OID type;
    CSSM_BER_TAG valueType;
    CSSM_DATA value;
};

/// A relative distinguished name.
struct CSSM_X509_RDN {
    std::uint32_t numberOfPairs;
    CSSM_X509_TYPE_VALUE_PAIR* AttributeTypeAndValue;
};

struct CSSM_X509_NAME {
    std::uint32_t numberOfRDNs;
    CSSM_X509_RDN* RelativeDistinguishedName;
};

/// A UTCTime or GeneralizedTime, as its type octet tells, with its content octets.
struct CSSM_X509_TIME {
    CSSM_BER_TAG timeType;
    CSSM_DATA time;
};

/// `parameters` are the DER of the parameters, empty without any.
struct CSSM_X509_ALGORITHM_IDENTIFIER {
    CSSM_OID algorithm;
    CSSM_DATA parameters;
};

/// `subjectPublicKey` is the content of the BIT STRING without its count of unused bits.
struct CSSM_X509_SUBJECT_PUBLIC_KEY_INFO {
    CSSM_X509_ALGORITHM_IDENTIFIER algorithm;
    CSSM_DATA subjectPublicKey;
};
