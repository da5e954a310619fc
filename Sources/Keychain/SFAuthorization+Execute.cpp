#include "Keychain/SFAuthorization+Execute.h"

#include "Foundation/NSFormat.h"
#include "Security/Authorization/ErrorText.h"

#include <errno.h>
#include <optional>
#include <sys/wait.h>
#include <vector>

namespace {

/// The arguments as a vector of C strings.
class ArgumentVector {
public:
    /// Nothing where an argument has no text to pass.
    static std::optional<ArgumentVector> of(const Ref<NSArray>& arguments)
    {
        ArgumentVector vector;
        for (NSUInteger index = 0; index < countOf(arguments); ++index) {
            const auto argument = arguments->objectAs<NSString>(index);
            auto text = argument ? argument->UTF8String() : std::nullopt;
            if (!text)
                return std::nullopt;
            // Its length in characters is the room that each argument gets.
            text->resize(std::min(text->size(), static_cast<std::size_t>(argument->length())));
            vector.texts_.push_back(std::move(*text));
        }
        return vector;
    }

    /// Null without arguments; ended by a null slot, which the platform reads up to.
    char* const* slots()
    {
        if (texts_.empty())
            return nullptr;
        slots_.clear();
        for (auto& text : texts_)
            slots_.push_back(text.data());
        slots_.push_back(nullptr);
        return slots_.data();
    }

private:
    std::vector<std::string> texts_;
    std::vector<char*> slots_;
};

OSStatus launch(const Ref<SFAuthorization>& authorization, const Ref<NSString>& path, const Ref<NSArray>& arguments,
    std::FILE** pipe)
{
    auto vector = ArgumentVector::of(arguments);
    if (!vector)
        return errAuthorizationToolExecuteFailure;
    const auto tool = path ? path->UTF8String() : std::nullopt;
    return AuthorizationExecuteWithPrivileges(authorization->authorizationRef(), tool ? tool->c_str() : nullptr,
        kAuthorizationFlagDefaults, vector->slots(), pipe);
}

/// The exit status of the child that changes first, -1 where it did not exit.
std::int32_t waitForTool()
{
    int status = -1;
    while (waitpid(-1, &status, WUNTRACED) == -1 && errno == EINTR) { }
    return (status & 0x7F) == 0 ? (status >> 8) & 0xFF : -1;
}

Ref<NSError> errorForStatus(OSStatus status)
{
    const auto text = NSStringWithFormat("%@ (%d)", Execute::stringForAuthorizationError(status), status);
    return NSError::errorWithDomain(
        NSOSStatusErrorDomain, status, NSDictionary::dictionaryWithObjectsAndKeys({{text, NSLocalizedDescriptionKey}}));
}

} // namespace

std::int32_t Execute::executePrivilegedTool(const Ref<SFAuthorization>& authorization, const Ref<NSString>& path,
    const Ref<NSArray>& arguments, bool waitUntilDone, std::FILE** pipe, Ref<NSError>* error)
{
    if (!authorization)
        return 0;
    const OSStatus status = launch(authorization, path, arguments, pipe);
    if (status != errAuthorizationSuccess) {
        if (error)
            *error = errorForStatus(status);
        return status;
    }
    return waitUntilDone ? waitForTool() : 0;
}

Ref<NSString> Execute::stringForAuthorizationError(std::int32_t status)
{
    const Ref<NSString> text = kf::authorizationErrorText(status);
    return text ? text : "The Security Server encountered an unknown error"_ns;
}
