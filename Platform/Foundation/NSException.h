// Exceptions, and the handler of failed assertions.
#pragma once

#include "Foundation/NSDictionary.h"

#include <exception>
#include <memory>

extern const Ref<NSString> NSInvalidArgumentException;
extern const Ref<NSString> NSRangeException;
extern const Ref<NSString> NSGenericException;
extern const Ref<NSString> NSInternalInconsistencyException;

/// What is wrong, as an object; it travels inside NSRaisedException.
class NSException final : public NSObject {
public:
    static Ref<NSException> exceptionWithName(
        const Ref<NSString>& name, const Ref<NSString>& reason, const Ref<NSDictionary>& userInfo);

    const Ref<NSString>& name() const noexcept { return name_; }
    const Ref<NSString>& reason() const noexcept { return reason_; }
    const Ref<NSDictionary>& userInfo() const noexcept { return userInfo_; }
    /// Throws NSRaisedException with this object.
    [[noreturn]] void raise();

    Ref<NSString> description() const override;
    const char* className() const noexcept override { return "NSException"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    NSException(Ref<NSString> name, Ref<NSString> reason, Ref<NSDictionary> userInfo) noexcept;
    ~NSException() override;

    Ref<NSString> name_;
    Ref<NSString> reason_;
    Ref<NSDictionary> userInfo_;
};

/// The C++ exception of a raised NSException. what() is "name: reason".
class NSRaisedException final : public std::exception {
public:
    explicit NSRaisedException(Ref<NSException> exception);
    const Ref<NSException>& exception() const noexcept { return exception_; }
    const char* what() const noexcept override { return text_->c_str(); }

private:
    Ref<NSException> exception_;
    std::shared_ptr<const std::string> text_;
};

/// Raises an exception with a name, a format and its arguments.
[[noreturn]] void NSRaise(const Ref<NSString>& name, const Ref<NSString>& reason);

/// What happens when an assertion fails. Each thread has a current handler;
/// the platform's own logs "*** Assertion failure in FUNCTION, FILE:LINE" and
/// raises NSInternalInconsistencyException with the description as its reason.
class NSAssertionHandler {
public:
    virtual ~NSAssertionHandler();
    /// The calling thread's handler; never null.
    static NSAssertionHandler* currentHandler() noexcept;
    /// Replaces the calling thread's handler (borrowed; null restores the
    /// platform's own) and gives back the one before.
    static NSAssertionHandler* setCurrentHandler(NSAssertionHandler* handler) noexcept;

    virtual void handleFailureInFunction(const Ref<NSString>& function, const Ref<NSString>& file, NSInteger lineNumber,
        const Ref<NSString>& description);
};
