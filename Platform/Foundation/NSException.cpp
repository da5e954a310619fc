#include "Foundation/NSException.h"

#include "Foundation/NSLog.h"

constinit const Ref<NSString> NSInvalidArgumentException = kf::constant<"NSInvalidArgumentException">();
constinit const Ref<NSString> NSRangeException = kf::constant<"NSRangeException">();
constinit const Ref<NSString> NSGenericException = kf::constant<"NSGenericException">();
constinit const Ref<NSString> NSInternalInconsistencyException = kf::constant<"NSInternalInconsistencyException">();

NSException::NSException(Ref<NSString> name, Ref<NSString> reason, Ref<NSDictionary> userInfo) noexcept
    : name_(std::move(name)), reason_(std::move(reason)), userInfo_(std::move(userInfo))
{
}
NSException::~NSException() = default;

Ref<NSException> NSException::exceptionWithName(
    const Ref<NSString>& name, const Ref<NSString>& reason, const Ref<NSDictionary>& userInfo)
{
    return makeRef<NSException>(name, reason, userInfo);
}

void NSException::raise() { throw NSRaisedException(Ref<NSException>::retain(this)); }

Ref<NSString> NSException::description() const { return reason_ ? reason_ : name_; }

NSRaisedException::NSRaisedException(Ref<NSException> exception)
    : exception_(std::move(exception)),
      text_(std::make_shared<const std::string>(toUTF8(exception_->name()) + ": " + toUTF8(exception_->reason())))
{
}

void NSRaise(const Ref<NSString>& name, const Ref<NSString>& reason)
{
    NSException::exceptionWithName(name, reason, nullptr)->raise();
}

namespace {
thread_local NSAssertionHandler* threadHandler = nullptr;
}

NSAssertionHandler::~NSAssertionHandler() = default;

NSAssertionHandler* NSAssertionHandler::currentHandler() noexcept
{
    static NSAssertionHandler own;
    return threadHandler ? threadHandler : &own;
}

NSAssertionHandler* NSAssertionHandler::setCurrentHandler(NSAssertionHandler* handler) noexcept
{
    return std::exchange(threadHandler, handler);
}

void NSAssertionHandler::handleFailureInFunction(
    const Ref<NSString>& function, const Ref<NSString>& file, NSInteger lineNumber, const Ref<NSString>& description)
{
    NSLog("*** Assertion failure in %@, %@:%ld", function, file, lineNumber);
    NSRaise(NSInternalInconsistencyException, description);
}
