#include "Foundation/NSError.h"

#include "Foundation/NSFormat.h"

constinit const Ref<NSString> NSOSStatusErrorDomain = kf::constant<"NSOSStatusErrorDomain">();
constinit const Ref<NSString> NSLocalizedDescriptionKey = kf::constant<"NSLocalizedDescription">();
constinit const Ref<NSString> NSLocalizedFailureReasonErrorKey = kf::constant<"NSLocalizedFailureReason">();

NSError::NSError(Ref<NSString> domain, NSInteger code, Ref<NSDictionary> userInfo) noexcept
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo))
{
}
NSError::~NSError() = default;

Ref<NSError> NSError::errorWithDomain(const Ref<NSString>& domain, NSInteger code, const Ref<NSDictionary>& userInfo)
{
    return makeRef<NSError>(domain, code, userInfo);
}

Ref<NSString> NSError::localizedDescription() const
{
    if (userInfo_) {
        if (auto text = userInfo_->objectAs<NSString>(NSLocalizedDescriptionKey))
            return text;
    }
    return NSStringWithFormat("The operation could not be completed. (%@ error %ld.)", domain_, code_);
}

Ref<NSString> NSError::description() const
{
    return NSStringWithFormat("Error Domain=%@ Code=%ld \"%@\"", domain_, code_, localizedDescription());
}
