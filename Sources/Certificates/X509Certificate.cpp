#include "Certificates/X509Certificate.h"

#include "Foundation/NSArray.h"
#include "Foundation/NSData.h"
#include "Foundation/NSDate.h"
#include "Security/cssmapi.h"
#include "Security/cssmoids.h"
#include "Security/x509defs.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>

namespace {

// The certificate-library module: attaches anew for each certificate, keeps no
// state between them, and prints its failures.

void* appMalloc(std::uint32_t size, void*) { return std::malloc(size); }

void appFree(void* memory, void*) { std::free(memory); }

void* appRealloc(void* memory, std::uint32_t size, void*) { return std::realloc(memory, size); }

void* appCalloc(std::uint32_t count, std::uint32_t size, void*) { return std::calloc(count, size); }

const CSSM_API_MEMORY_FUNCS memFuncs = {appMalloc, appFree, appRealloc, appCalloc, nullptr};
const CSSM_VERSION vers = {2, 0};
const CSSM_GUID testGuid = {0xFADE, 0, 0, {1, 2, 3, 4, 5, 6, 7, 0}};

bool CSSMStartup()
{
    CSSM_PVC_MODE pvcPolicy = CSSM_PVC_NONE;
    const CSSM_RETURN error =
        CSSM_Init(&vers, CSSM_PRIVILEGE_SCOPE_NONE, &testGuid, CSSM_KEY_HIERARCHY_NONE, &pvcPolicy, nullptr);
    if (error != CSSM_OK) {
        cssmPerror("CSSM_Init", error);
        return false;
    }
    return true;
}

/// A handle of the certificate library, or 0.
CSSM_CL_HANDLE CLStartup()
{
    if (!CSSMStartup())
        return 0;
    CSSM_RETURN error = CSSM_ModuleLoad(&gGuidAppleX509CL, CSSM_KEY_HIERARCHY_NONE, nullptr, nullptr);
    if (error != CSSM_OK) {
        cssmPerror("CSSM_ModuleLoad", error);
        return 0;
    }
    CSSM_CL_HANDLE handle = 0;
    error = CSSM_ModuleAttach(&gGuidAppleX509CL, &vers, &memFuncs, 0, CSSM_SERVICE_CL, 0, CSSM_KEY_HIERARCHY_NONE,
        nullptr, 0, nullptr, &handle);
    if (error != CSSM_OK) {
        cssmPerror("CSSM_ModuleAttach", error);
        return 0;
    }
    return handle;
}

/// Detaches and unloads; the one is done whatever the other gives.
void CLShutdown(CSSM_CL_HANDLE handle)
{
    CSSM_RETURN error = CSSM_ModuleDetach(handle);
    if (error != CSSM_OK)
        cssmPerror("CSSM_ModuleDetach", error);
    error = CSSM_ModuleUnload(&gGuidAppleX509CL, nullptr, nullptr);
    if (error != CSSM_OK)
        cssmPerror("CSSM_ModuleUnload", error);
}

std::span<const std::uint8_t> BytesOf(const CSSM_DATA& data) { return {data.Data, data.Data ? data.Length : 0}; }

bool CompareOids(const CSSM_OID* a, const CSSM_OID* b)
{
    return a && b && a->Length == b->Length && std::ranges::equal(BytesOf(*a), BytesOf(*b));
}

[[maybe_unused]] bool CompareCSSMData(const CSSM_DATA* a, const CSSM_DATA* b)
{
    return a && b && a->Length == b->Length && std::ranges::equal(BytesOf(*a), BytesOf(*b));
}

/// Nil for null.
Ref<NSData> RawToData(const CSSM_DATA* data) { return data ? NSData::dataWithBytes(BytesOf(*data)) : nullptr; }

/// The text of an attribute's value; nil for types that are not taken for text
/// and for bytes that are no text. BMPString and UniversalString are read as
/// UTF-8 and IA5String is not read at all: consumers count on just that.
Ref<NSString> DataToString(const CSSM_DATA& value, CSSM_BER_TAG tag)
{
    switch (tag) {
    case BER_TAG_PRINTABLE_STRING:
    case BER_TAG_T61_STRING:
        return NSString::stringWithBytes(BytesOf(value), NSISOLatin1StringEncoding);
    case BER_TAG_UTF8_STRING:
    case BER_TAG_UNIVERSAL_STRING:
    case BER_TAG_BMP_STRING:
        return NSString::stringWithBytes(BytesOf(value), NSUTF8StringEncoding);
    default:
        return nullptr;
    }
}

/// The key of an attribute type in a name's dictionary, or nil.
Ref<NSString> KeyForOid(const CSSM_OID& type)
{
    struct NameKey {
        const CSSM_OID* type;
        Ref<NSString> key;
    };
    static const NameKey keys[] = {
        {&CSSMOID_CountryName, "Country"_ns},
        {&CSSMOID_OrganizationName, "Organization"_ns},
        {&CSSMOID_LocalityName, "Locality"_ns},
        {&CSSMOID_OrganizationalUnitName, "OrganizationalUnit"_ns},
        {&CSSMOID_CommonName, "CommonName"_ns},
        {&CSSMOID_Surname, "Surname"_ns},
        {&CSSMOID_Title, "Title"_ns},
        {&CSSMOID_StateProvinceName, "StateProvince"_ns},
        {&CSSMOID_CollectiveStateProvinceName, "CollectiveStateProvince"_ns},
        {&CSSMOID_EmailAddress, "EmailAddress"_ns},
        {&CSSMOID_StreetAddress, "StreetAddress"_ns},
        {&CSSMOID_PostalCode, "PostalCode"_ns},
    };
    const auto* const found = std::find_if(
        std::begin(keys), std::end(keys), [&](const NameKey& known) { return CompareOids(known.type, &type); });
    return found == std::end(keys) ? nullptr : found->key;
}

/// Nil for null.
Ref<NSMutableDictionary> X509NameToDictionary(const CSSM_X509_NAME* name)
{
    if (!name)
        return nullptr;
    auto dictionary = NSMutableDictionary::dictionaryWithCapacity(6);
    const auto others = NSMutableArray::arrayWithCapacity(6);
    for (const CSSM_X509_RDN& rdn : std::span(name->RelativeDistinguishedName, name->numberOfRDNs)) {
        for (const CSSM_X509_TYPE_VALUE_PAIR& pair : std::span(rdn.AttributeTypeAndValue, rdn.numberOfPairs)) {
            const auto string = DataToString(pair.value, pair.valueType);
            if (!string)
                continue;
            if (const auto key = KeyForOid(pair.type))
                dictionary->setObjectForKey(string, key);
            else
                others->addObject(string);
        }
    }
    if (others->count() > 0)
        dictionary->setObjectForKey(others, "Others"_ns);
    return dictionary;
}

/// Reads the digits of a time from left to right.
class TimeFields {
public:
    explicit TimeFields(const char* digits) noexcept : digits_(digits) { }

    long next(std::size_t count)
    {
        char field[5] = {};
        std::copy_n(digits_, count, field);
        digits_ += count;
        return std::strtol(field, nullptr, 10);
    }

private:
    const char* digits_;
};

constexpr std::size_t utcTimeLength = sizeof "YYMMDDHHMMSSZ" - 1;
constexpr std::size_t generalizedTimeLength = sizeof "YYYYMMDDHHMMSSZ" - 1;

/// The year of a UTCTime's two digits: 1970 to 2049; -1 for 50 to 69, which no
/// certificate that is in use can mean.
long YearOfTwoDigits(long digits)
{
    if (digits <= 49)
        return 2000 + digits;
    return digits >= 70 ? 1900 + digits : -1;
}

bool IsPlainZuluTime(const char* time, std::size_t length)
{
    return (length == utcTimeLength || length == generalizedTimeLength) && time[length - 1] == 'Z'
        && std::all_of(
            time, time + length - 1, [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; });
}

/// The date of a UTCTime or GeneralizedTime in Zulu time with seconds and
/// nothing more, which may end in one NUL; nil for anything else. A day that
/// its month does not have is left to the calendar.
Ref<NSDate> TimeToDate(const char* time, std::uint32_t length)
{
    if (!time || length == 0)
        return nullptr;
    if (time[length - 1] == '\0')
        --length;
    if (!IsPlainZuluTime(time, length))
        return nullptr;
    TimeFields fields(time);
    const long year = length == utcTimeLength ? YearOfTwoDigits(fields.next(2)) : fields.next(4);
    const long month = fields.next(2);
    const long day = fields.next(2);
    const long hour = fields.next(2);
    const long minute = fields.next(2);
    const long second = fields.next(2);
    if (year < 0 || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 59)
        return nullptr;
    CFGregorianDate date;
    date.year = static_cast<std::int32_t>(year);
    date.month = static_cast<std::int8_t>(month);
    date.day = static_cast<std::int8_t>(day);
    date.hour = static_cast<std::int8_t>(hour);
    date.minute = static_cast<std::int8_t>(minute);
    date.second = static_cast<double>(second);
    return NSDate::dateWithTimeIntervalSinceReferenceDate(CFGregorianDateGetAbsoluteTime(date, nullptr));
}

/// The field's value as a T; null where it cannot be one.
template <class T>
const T* StructOf(const CSSM_FIELD& field)
{
    const CSSM_DATA& value = field.FieldValue;
    return value.Data && value.Length == sizeof(T) ? reinterpret_cast<const T*>(value.Data) : nullptr;
}

Ref<NSObject> NameOfField(const CSSM_FIELD& field) { return X509NameToDictionary(StructOf<CSSM_X509_NAME>(field)); }

Ref<NSObject> DateOfField(const CSSM_FIELD& field)
{
    const auto* const value = StructOf<CSSM_X509_TIME>(field);
    if (!value)
        return nullptr;
    return TimeToDate(reinterpret_cast<const char*>(value->time.Data), static_cast<std::uint32_t>(value->time.Length));
}

Ref<NSObject> SerialOfField(const CSSM_FIELD& field) { return RawToData(&field.FieldValue); }

Ref<NSObject> PublicKeyOfField(const CSSM_FIELD& field)
{
    const auto* const value = StructOf<CSSM_X509_SUBJECT_PUBLIC_KEY_INFO>(field);
    return value ? RawToData(&value->subjectPublicKey) : nullptr;
}

/// Puts a field into the dictionary, unless it is none of ours or malformed.
void AddCSSMField(const CSSM_FIELD& field, NSMutableDictionary& dictionary)
{
    struct FieldKey {
        const CSSM_OID* oid;
        Ref<NSString> key;
        Ref<NSObject> (*valueOf)(const CSSM_FIELD& field);
    };
    static const FieldKey keys[] = {
        {&CSSMOID_X509V1SerialNumber, "SerialNumber"_ns, SerialOfField},
        {&CSSMOID_X509V1IssuerNameCStruct, "Issuer"_ns, NameOfField},
        {&CSSMOID_X509V1SubjectNameCStruct, "Subject"_ns, NameOfField},
        {&CSSMOID_X509V1ValidityNotBefore, "NotValidBefore"_ns, DateOfField},
        {&CSSMOID_X509V1ValidityNotAfter, "NotValidAfter"_ns, DateOfField},
        {&CSSMOID_X509V1SubjectPublicKeyCStruct, "PublicKey"_ns, PublicKeyOfField},
    };
    const auto* const found = std::find_if(std::begin(keys), std::end(keys),
        [&](const FieldKey& known) { return CompareOids(known.oid, &field.FieldOid); });
    if (found == std::end(keys))
        return;
    if (const auto value = found->valueOf(field))
        dictionary.setObjectForKey(value, found->key);
}

/// An attachment of the certificate library for as long as it lives.
class CertificateLibrary {
public:
    CertificateLibrary() : handle_(CLStartup()) { }
    ~CertificateLibrary()
    {
        if (handle_ != 0)
            CLShutdown(handle_);
    }
    CertificateLibrary(const CertificateLibrary&) = delete;
    CertificateLibrary& operator=(const CertificateLibrary&) = delete;
    CSSM_CL_HANDLE handle() const noexcept { return handle_; }

private:
    CSSM_CL_HANDLE handle_;
};

/// The fields of a certificate, freed when it goes.
class CertificateFieldArray {
public:
    CertificateFieldArray(CSSM_CL_HANDLE handle, const CSSM_DATA& certificate)
        : handle_(handle), error_(CSSM_CL_CertGetAllFields(handle, &certificate, &count_, &fields_))
    {
    }
    ~CertificateFieldArray()
    {
        if (error_ == CSSM_OK)
            CSSM_CL_FreeFields(handle_, count_, &fields_);
    }
    CertificateFieldArray(const CertificateFieldArray&) = delete;
    CertificateFieldArray& operator=(const CertificateFieldArray&) = delete;
    CSSM_RETURN error() const noexcept { return error_; }
    std::span<const CSSM_FIELD> fields() const noexcept { return {fields_, count_}; }

private:
    CSSM_CL_HANDLE handle_;
    std::uint32_t count_ = 0;
    CSSM_FIELD* fields_ = nullptr;
    CSSM_RETURN error_;
};

} // namespace

Ref<NSMutableDictionary> X509Certificate::extractCertDictFromIdentity(const SecIdentityRef& identity)
{
    if (!identity)
        return nullptr;
    SecCertificateRef certificate;
    const OSStatus status = SecIdentityCopyCertificate(identity, &certificate);
    if (status != errSecSuccess) {
        cssmPerror("SecIdentityCopyCertificate", static_cast<CSSM_RETURN>(status));
        return nullptr;
    }
    return extractCertDictFromCert(certificate);
}

Ref<NSMutableDictionary> X509Certificate::extractCertDictFromCert(const SecCertificateRef& certificate)
{
    const CertificateLibrary library;
    if (library.handle() == 0)
        return nullptr;
    CSSM_DATA data;
    if (SecCertificateGetData(certificate, &data) != errSecSuccess)
        return nullptr;
    const CertificateFieldArray array(library.handle(), data);
    if (array.error() != CSSM_OK)
        return nullptr;
    auto dictionary = NSMutableDictionary::dictionaryWithCapacity(6);
    for (const CSSM_FIELD& field : array.fields())
        AddCSSMField(field, *dictionary);
    return dictionary;
}
