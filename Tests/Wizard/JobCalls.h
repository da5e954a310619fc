// The platform's calls as the two jobs make them: seen, and answered in its
// place where no back end could bring that answer about.
#pragma once

#include "Foundation/NSData.h"
#include "Security/SecKeychainItem.h"
#include "Security/SecTrust.h"

#include <functional>
#include <optional>

namespace kf::test {

/// What a test puts in front of each call; an answer of nothing leaves it to the platform.
struct JobCalls {
    using Answer = std::optional<OSStatus>;
    std::function<Answer(const Ref<NSObject>& certificates, const Ref<NSObject>& policies)> createTrust;
    std::function<Answer(SecTrustResultType* result)> evaluateTrust;
    std::function<Answer(const SecKeyImportExportParameters& parameters, Ref<NSArray>* items)> import;
};

/// The calls in force while this object lives.
class ScopedJobCalls : public JobCalls {
public:
    ScopedJobCalls();
    ScopedJobCalls(const ScopedJobCalls&) = delete;
    ScopedJobCalls& operator=(const ScopedJobCalls&) = delete;
    ~ScopedJobCalls();
};

} // namespace kf::test
