#include "Security/SecTrust.h"

#include "Security/Trust/Evaluation.h"

using namespace kf;

namespace {

/// The objects of an array, or the one object, where each is a T; else nothing.
template <class T>
std::vector<Ref<T>> objectsOf(const Ref<NSObject>& objectOrArray)
{
    if (const auto single = refCast<T>(objectOrArray))
        return {single};
    std::vector<Ref<T>> objects;
    const auto array = refCast<NSArray>(objectOrArray);
    for (NSUInteger index = 0; index < countOf(array); ++index) {
        auto object = array->objectAs<T>(index);
        if (!object)
            return {};
        objects.push_back(std::move(object));
    }
    return objects;
}

} // namespace

SecTrust::SecTrust(std::vector<SecCertificateRef> certificates) noexcept : certificates_(std::move(certificates)) { }

SecTrust::~SecTrust() = default;

OSStatus SecTrustCreateWithCertificates(
    const Ref<NSObject>& certificates, const Ref<NSObject>& policies, SecTrustRef* trust)
{
    if (!trust)
        return errSecParam;
    trust->reset();
    auto toEvaluate = objectsOf<SecCertificate>(certificates);
    // Every policy is the basic one so far: that there is one is all there is to check.
    if (toEvaluate.empty() || objectsOf<SecPolicy>(policies).empty())
        return errSecParam;
    *trust = makeRef<SecTrust>(std::move(toEvaluate));
    return errSecSuccess;
}

OSStatus SecTrustEvaluate(const SecTrustRef& trust, SecTrustResultType* result)
{
    if (!trust || !result)
        return errSecParam;
    const auto evaluated = trust::evaluate(trust->certificates());
    if (evaluated)
        *result = *evaluated;
    return evaluated.status();
}
