#include "Tests/Wizard/JobCalls.h"

#include "Tests/Support/LibraryFunction.h"

#include <utility>

namespace kf::test {

namespace {

JobCalls* current = nullptr;

template <class Function, class... Arguments>
JobCalls::Answer answer(Function JobCalls::*call, Arguments&&... arguments)
{
    return current && current->*call ? (current->*call)(std::forward<Arguments>(arguments)...) : std::nullopt;
}

} // namespace

ScopedJobCalls::ScopedJobCalls() { current = this; }
ScopedJobCalls::~ScopedJobCalls() { current = nullptr; }

} // namespace kf::test

using kf::test::answer;
using kf::test::JobCalls;
using kf::test::libraryFunction;

OSStatus SecTrustCreateWithCertificates(
    const Ref<NSObject>& certificates, const Ref<NSObject>& policies, SecTrustRef* trust)
{
    static const auto real = libraryFunction(&SecTrustCreateWithCertificates);
    const auto status = answer(&JobCalls::createTrust, certificates, policies);
    return status ? *status : real(certificates, policies, trust);
}

OSStatus SecTrustEvaluate(const SecTrustRef& trust, SecTrustResultType* result)
{
    static const auto real = libraryFunction(&SecTrustEvaluate);
    const auto status = answer(&JobCalls::evaluateTrust, result);
    return status ? *status : real(trust, result);
}

OSStatus SecKeychainItemImport(const Ref<NSData>& importedData, const Ref<NSString>& fileNameOrExtension,
    SecExternalFormat* inputFormat, SecExternalItemType* itemType, SecItemImportExportFlags flags,
    const SecKeyImportExportParameters* keyParameters, const SecKeychainRef& importKeychain, Ref<NSArray>* items)
{
    static const auto real = libraryFunction(&SecKeychainItemImport);
    const auto status = answer(&JobCalls::import, *keyParameters, items);
    return status
        ? *status
        : real(importedData, fileNameOrExtension, inputFormat, itemType, flags, keyParameters, importKeychain, items);
}
