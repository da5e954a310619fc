// The platform's certificate library: an X.509 certificate taken apart into
// fields. It walks the outer structure and reads names and times where they
// stand; the public key is handed out as bytes and never decoded, which is
// where reading a certificate whole spends its time.
#include "Security/CSSM/CssmModule.h"
#include "Security/Certificate/DERReader.h"
#include "Security/cssmoids.h"
#include "Security/x509defs.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace kf {

namespace {

using Span = std::span<const std::uint8_t>;

/// Memory for one field value: first its structures, behind them the bytes to
/// which they point, last the bytes of the field's identifier.
class ValueBlock {
public:
    ValueBlock(const CssmMemory& memory, std::size_t structures, std::size_t bytes)
        : start_(static_cast<std::uint8_t*>(memory.allocate(structures + bytes))), structure_(start_),
          byte_(start_ ? start_ + structures : nullptr)
    {
    }

    explicit operator bool() const noexcept { return start_ != nullptr; }
    std::uint8_t* start() const noexcept { return start_; }

    template <class T>
    T* make(std::size_t count)
    {
        auto* const made = reinterpret_cast<T*>(structure_);
        std::uninitialized_value_construct_n(made, count);
        structure_ += count * sizeof(T);
        return made;
    }
    CSSM_DATA copy(Span bytes)
    {
        CSSM_DATA data{bytes.size(), byte_};
        byte_ = std::copy(bytes.begin(), bytes.end(), byte_);
        return data;
    }

private:
    std::uint8_t* start_;
    std::uint8_t* structure_;
    std::uint8_t* byte_;
};

Span bytesOf(const CSSM_OID& oid) noexcept { return {oid.Data, oid.Length}; }

struct Attribute {
    Span type;
    DERElement value;
};

/// A name, its attributes in one row; where each relative name ends is told apart.
struct Name {
    std::vector<Attribute> attributes;
    std::vector<std::size_t> rdnEnds;
};

std::optional<Attribute> readAttribute(DERReader& rdn)
{
    const auto pair = rdn.next(der::sequence);
    if (!pair)
        return std::nullopt;
    DERReader parts(pair->content);
    const auto type = parts.next(der::objectIdentifier);
    const auto value = parts.next();
    if (!type || !value || !parts.atEnd())
        return std::nullopt;
    return Attribute{type->content, *value};
}

std::optional<Name> readName(DERReader& certificate)
{
    const auto sequence = certificate.next(der::sequence);
    if (!sequence)
        return std::nullopt;
    Name name;
    for (DERReader rdns(sequence->content); !rdns.atEnd();) {
        const auto set = rdns.next(der::set);
        if (!set)
            return std::nullopt;
        for (DERReader rdn(set->content); !rdn.atEnd();) {
            const auto attribute = readAttribute(rdn);
            if (!attribute)
                return std::nullopt;
            name.attributes.push_back(*attribute);
        }
        name.rdnEnds.push_back(name.attributes.size());
    }
    return name;
}

struct PublicKeyInfo {
    Span algorithm;
    Span parameters;
    Span key;
};

std::optional<PublicKeyInfo> readPublicKeyInfo(DERReader& certificate)
{
    const auto info = certificate.next(der::sequence);
    if (!info)
        return std::nullopt;
    DERReader parts(info->content);
    const auto identifier = parts.next(der::sequence);
    const auto key = parts.next(der::bitString);
    if (!identifier || !key || key->content.empty() || !parts.atEnd())
        return std::nullopt;
    DERReader algorithm(identifier->content);
    const auto type = algorithm.next(der::objectIdentifier);
    if (!type)
        return std::nullopt;
    return PublicKeyInfo{type->content, identifier->content.subspan(type->whole.size()), key->content.subspan(1)};
}

/// A certificate's parts; they point into its bytes.
struct Certificate {
    std::optional<Span> version;
    Span serial;
    Name issuer;
    DERElement notBefore;
    DERElement notAfter;
    Name subject;
    PublicKeyInfo publicKey;
};

/// The INTEGER within the version's wrapping; nothing where there is none. A
/// broken one keeps nobody from reading the rest.
std::optional<Span> readVersion(DERReader& tbs)
{
    const auto wrapping = tbs.nextContext(0);
    if (!wrapping)
        return std::nullopt;
    const auto integer = DERReader(wrapping->content).next(der::integer);
    return integer ? std::optional(integer->content) : std::nullopt;
}

bool readValidity(DERReader& tbs, Certificate& certificate)
{
    const auto validity = tbs.next(der::sequence);
    if (!validity)
        return false;
    DERReader times(validity->content);
    const auto notBefore = times.next();
    const auto notAfter = times.next();
    if (!notBefore || !notAfter || !times.atEnd())
        return false;
    certificate.notBefore = *notBefore;
    certificate.notAfter = *notAfter;
    return true;
}

std::optional<Certificate> readTbsCertificate(Span content)
{
    Certificate certificate;
    DERReader tbs(content);
    certificate.version = readVersion(tbs);
    const auto serial = tbs.next(der::integer);
    const auto signatureAlgorithm = tbs.next(der::sequence);
    auto issuer = readName(tbs);
    const bool validity = readValidity(tbs, certificate);
    auto subject = readName(tbs);
    const auto publicKey = readPublicKeyInfo(tbs);
    if (!serial || !signatureAlgorithm || !issuer || !validity || !subject || !publicKey)
        return std::nullopt;
    // The unique identifiers of issuer and subject, and the extensions.
    for (const int optional : {1, 2, 3})
        tbs.nextContext(optional);
    if (!tbs.atEnd())
        return std::nullopt;
    certificate.serial = serial->content;
    certificate.issuer = std::move(*issuer);
    certificate.subject = std::move(*subject);
    certificate.publicKey = *publicKey;
    return certificate;
}

std::optional<Certificate> readCertificate(Span der)
{
    DERReader reader(der);
    const auto outer = reader.next(der::sequence);
    if (!outer || !reader.atEnd())
        return std::nullopt;
    DERReader parts(outer->content);
    const auto tbs = parts.next(der::sequence);
    const auto signatureAlgorithm = parts.next(der::sequence);
    const auto signature = parts.next(der::bitString);
    if (!tbs || !signatureAlgorithm || !signature || !parts.atEnd())
        return std::nullopt;
    return readTbsCertificate(tbs->content);
}

/// Fields in the making; what it still owns when it goes is freed.
class FieldList {
public:
    FieldList(const CssmMemory& memory, std::size_t capacity)
        : memory_(memory), fields_(static_cast<CSSM_FIELD*>(memory.allocate(capacity * sizeof(CSSM_FIELD))))
    {
    }
    ~FieldList()
    {
        if (fields_)
            freeFields(memory_, {fields_, count_});
    }
    FieldList(const FieldList&) = delete;
    FieldList& operator=(const FieldList&) = delete;

    static void freeFields(const CssmMemory& memory, std::span<CSSM_FIELD> fields)
    {
        for (const CSSM_FIELD& field : fields)
            memory.free(field.FieldValue.Data);
        memory.free(fields.data());
    }

    bool addBytes(const CSSM_OID& oid, Span bytes)
    {
        ValueBlock block(memory_, 0, bytes.size() + oid.Length);
        if (!block)
            return false;
        block.copy(bytes);
        return add(oid, block, bytes.size());
    }

    bool addTime(const CSSM_OID& oid, const DERElement& time)
    {
        ValueBlock block(memory_, sizeof(CSSM_X509_TIME), time.content.size() + oid.Length);
        if (!block)
            return false;
        auto* const value = block.make<CSSM_X509_TIME>(1);
        value->timeType = time.whole[0];
        value->time = block.copy(time.content);
        return add(oid, block, sizeof *value);
    }

    bool addName(const CSSM_OID& oid, const Name& name)
    {
        std::size_t bytes = oid.Length;
        for (const Attribute& attribute : name.attributes)
            bytes += attribute.type.size() + attribute.value.content.size();
        ValueBlock block(memory_,
            sizeof(CSSM_X509_NAME) + name.rdnEnds.size() * sizeof(CSSM_X509_RDN)
                + name.attributes.size() * sizeof(CSSM_X509_TYPE_VALUE_PAIR),
            bytes);
        if (!block)
            return false;
        auto* const value = block.make<CSSM_X509_NAME>(1);
        value->numberOfRDNs = static_cast<std::uint32_t>(name.rdnEnds.size());
        value->RelativeDistinguishedName = block.make<CSSM_X509_RDN>(name.rdnEnds.size());
        auto* const pairs = block.make<CSSM_X509_TYPE_VALUE_PAIR>(name.attributes.size());
        for (std::size_t i = 0; i < name.attributes.size(); ++i) {
            const Attribute& attribute = name.attributes[i];
            pairs[i].type = block.copy(attribute.type);
            pairs[i].valueType = attribute.value.whole[0];
            pairs[i].value = block.copy(attribute.value.content);
        }
        std::size_t begin = 0;
        for (std::size_t i = 0; i < name.rdnEnds.size(); ++i) {
            const std::size_t end = name.rdnEnds[i];
            value->RelativeDistinguishedName[i] = {static_cast<std::uint32_t>(end - begin), pairs + begin};
            begin = end;
        }
        return add(oid, block, sizeof *value);
    }

    bool addPublicKey(const CSSM_OID& oid, const PublicKeyInfo& info)
    {
        ValueBlock block(memory_, sizeof(CSSM_X509_SUBJECT_PUBLIC_KEY_INFO),
            info.algorithm.size() + info.parameters.size() + info.key.size() + oid.Length);
        if (!block)
            return false;
        auto* const value = block.make<CSSM_X509_SUBJECT_PUBLIC_KEY_INFO>(1);
        value->algorithm.algorithm = block.copy(info.algorithm);
        if (!info.parameters.empty())
            value->algorithm.parameters = block.copy(info.parameters);
        value->subjectPublicKey = block.copy(info.key);
        return add(oid, block, sizeof *value);
    }

    explicit operator bool() const noexcept { return fields_ != nullptr; }

    std::span<CSSM_FIELD> release() noexcept { return {std::exchange(fields_, nullptr), count_}; }

private:
    bool add(const CSSM_OID& oid, ValueBlock& block, std::size_t valueLength)
    {
        const CSSM_OID identifier = block.copy(bytesOf(oid));
        std::construct_at(fields_ + count_, CSSM_FIELD{identifier, {valueLength, block.start()}});
        ++count_;
        return true;
    }

    const CssmMemory& memory_;
    CSSM_FIELD* fields_;
    std::size_t count_ = 0;
};

constexpr std::size_t fieldsOfCertificate = 7;

bool addFields(FieldList& fields, const Certificate& certificate)
{
    return fields && (!certificate.version || fields.addBytes(CSSMOID_X509V1Version, *certificate.version))
        && fields.addBytes(CSSMOID_X509V1SerialNumber, certificate.serial)
        && fields.addName(CSSMOID_X509V1IssuerNameCStruct, certificate.issuer)
        && fields.addTime(CSSMOID_X509V1ValidityNotBefore, certificate.notBefore)
        && fields.addTime(CSSMOID_X509V1ValidityNotAfter, certificate.notAfter)
        && fields.addName(CSSMOID_X509V1SubjectNameCStruct, certificate.subject)
        && fields.addPublicKey(CSSMOID_X509V1SubjectPublicKeyCStruct, certificate.publicKey);
}

class X509ClSession final : public CssmSession {
public:
    explicit X509ClSession(const CssmMemory& memory) noexcept : memory_(memory) { }

    Result<std::span<CSSM_FIELD>> certGetAllFields(const CSSM_DATA& certificate) override
    {
        const auto parts = readCertificate({certificate.Data, certificate.Length});
        if (!parts)
            return cssmFailure(CSSMERR_CL_UNKNOWN_FORMAT);
        FieldList fields(memory_, fieldsOfCertificate);
        if (!addFields(fields, *parts))
            return cssmFailure(CSSMERR_CL_MEMORY_ERROR);
        return fields.release();
    }

    Status freeFields(std::span<CSSM_FIELD> fields) override
    {
        FieldList::freeFields(memory_, fields);
        return {};
    }

private:
    CssmMemory memory_;
};

class X509ClModule final : public CssmModule {
public:
    CSSM_SERVICE_MASK services() const noexcept override { return CSSM_SERVICE_CL; }
    Result<std::unique_ptr<CssmSession>> attach(CSSM_SERVICE_TYPE, const CssmMemory& memory) override
    {
        return std::unique_ptr<CssmSession>(std::make_unique<X509ClSession>(memory));
    }
};

} // namespace

std::unique_ptr<CssmModule> makeX509ClModule() { return std::make_unique<X509ClModule>(); }

} // namespace kf
