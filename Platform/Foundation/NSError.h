// Error objects.
#pragma once

#include "Foundation/NSDictionary.h"

extern const Ref<NSString> NSOSStatusErrorDomain;            // "NSOSStatusErrorDomain"
extern const Ref<NSString> NSLocalizedDescriptionKey;        // "NSLocalizedDescription"
extern const Ref<NSString> NSLocalizedFailureReasonErrorKey; // "NSLocalizedFailureReason"

/// An immutable error: a domain, a code and a dictionary of details.
class NSError final : public NSObject {
public:
    static Ref<NSError> errorWithDomain(const Ref<NSString>& domain, NSInteger code, const Ref<NSDictionary>& userInfo);

    const Ref<NSString>& domain() const noexcept { return domain_; }
    NSInteger code() const noexcept { return code_; }
    const Ref<NSDictionary>& userInfo() const noexcept { return userInfo_; }
    /// The text under NSLocalizedDescriptionKey, else one made of domain and code. Never nil.
    Ref<NSString> localizedDescription() const;

    Ref<NSString> description() const override;
    const char* className() const noexcept override { return "NSError"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    NSError(Ref<NSString> domain, NSInteger code, Ref<NSDictionary> userInfo) noexcept;
    ~NSError() override;

    Ref<NSString> domain_;
    NSInteger code_;
    Ref<NSDictionary> userInfo_;
};
