#include "Security/cssmoids.h"

namespace {

/// The content octets of an object identifier, as constant data: other files'
/// initialisers may use them.
template <std::uint8_t... octets>
struct Identifier {
    // CSSM_OID points to what can be changed; nobody changes a constant.
    static constinit inline std::uint8_t content[] = {octets...};
    static constexpr CSSM_OID oid{sizeof...(octets), content};
};

/// 2.16.840.1.113741.2.1.1.1.n[.1]: the certificate fields; the last arc marks the decoded form.
template <std::uint8_t... arcs>
constexpr CSSM_OID certificateField =
    Identifier<0x60, 0x86, 0x48, 0x01, 0x86, 0xF8, 0x4D, 0x02, 0x01, 0x01, 0x01, arcs...>::oid;

/// 2.5.4.n
template <std::uint8_t... arcs>
constexpr CSSM_OID attributeType = Identifier<0x55, 0x04, arcs...>::oid;

} // namespace

constinit const CSSM_OID CSSMOID_X509V1Version = certificateField<2>;
constinit const CSSM_OID CSSMOID_X509V1SerialNumber = certificateField<3>;
constinit const CSSM_OID CSSMOID_X509V1IssuerNameCStruct = certificateField<5, 1>;
constinit const CSSM_OID CSSMOID_X509V1ValidityNotBefore = certificateField<6>;
constinit const CSSM_OID CSSMOID_X509V1ValidityNotAfter = certificateField<7>;
constinit const CSSM_OID CSSMOID_X509V1SubjectNameCStruct = certificateField<8, 1>;
constinit const CSSM_OID CSSMOID_X509V1SubjectPublicKeyCStruct = certificateField<10, 1>;

constinit const CSSM_OID CSSMOID_CountryName = attributeType<6>;
constinit const CSSM_OID CSSMOID_OrganizationName = attributeType<10>;
constinit const CSSM_OID CSSMOID_LocalityName = attributeType<7>;
constinit const CSSM_OID CSSMOID_OrganizationalUnitName = attributeType<11>;
constinit const CSSM_OID CSSMOID_CommonName = attributeType<3>;
constinit const CSSM_OID CSSMOID_Surname = attributeType<4>;
constinit const CSSM_OID CSSMOID_Title = attributeType<12>;
constinit const CSSM_OID CSSMOID_StateProvinceName = attributeType<8>;
constinit const CSSM_OID CSSMOID_CollectiveStateProvinceName = attributeType<8, 1>;
constinit const CSSM_OID CSSMOID_StreetAddress = attributeType<9>;
constinit const CSSM_OID CSSMOID_PostalCode = attributeType<17>;
// 1.2.840.113549.1.9.1
constinit const CSSM_OID CSSMOID_EmailAddress = Identifier<0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x01>::oid;

// 1.2.840.113635.100.1.2
constinit const CSSM_OID CSSMOID_APPLE_X509_BASIC =
    Identifier<0x2A, 0x86, 0x48, 0x86, 0xF7, 0x63, 0x64, 0x01, 0x02>::oid;
