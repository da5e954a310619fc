// Object identifiers of certificate fields and of the attribute types of names.
#pragma once

#include "Security/cssmtype.h"

// Fields of an X.509 certificate (CDSA, "OIDs for X.509 Certificate Library
// Modules"). Names ending in CStruct have values in a form of x509defs.h; so
// have the validity times (CSSM_X509_TIME).
extern const CSSM_OID CSSMOID_X509V1Version;                 ///< content octets of the INTEGER
extern const CSSM_OID CSSMOID_X509V1SerialNumber;            ///< content octets of the INTEGER
extern const CSSM_OID CSSMOID_X509V1IssuerNameCStruct;       ///< CSSM_X509_NAME
extern const CSSM_OID CSSMOID_X509V1ValidityNotBefore;       ///< CSSM_X509_TIME
extern const CSSM_OID CSSMOID_X509V1ValidityNotAfter;        ///< CSSM_X509_TIME
extern const CSSM_OID CSSMOID_X509V1SubjectNameCStruct;      ///< CSSM_X509_NAME
extern const CSSM_OID CSSMOID_X509V1SubjectPublicKeyCStruct; ///< CSSM_X509_SUBJECT_PUBLIC_KEY_INFO

// Attribute types of names (X.520, PKCS #9).
extern const CSSM_OID CSSMOID_CountryName;
extern const CSSM_OID CSSMOID_OrganizationName;
extern const CSSM_OID CSSMOID_LocalityName;
extern const CSSM_OID CSSMOID_OrganizationalUnitName;
extern const CSSM_OID CSSMOID_CommonName;
extern const CSSM_OID CSSMOID_Surname;
extern const CSSM_OID CSSMOID_Title;
extern const CSSM_OID CSSMOID_StateProvinceName;
extern const CSSM_OID CSSMOID_CollectiveStateProvinceName;
extern const CSSM_OID CSSMOID_EmailAddress;
extern const CSSM_OID CSSMOID_StreetAddress;
extern const CSSM_OID CSSMOID_PostalCode;
