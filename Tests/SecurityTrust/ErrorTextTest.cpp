// Every status that the headers name has a text of its own.

#include "Security/Authorization.h"
#include "Security/SecBase.h"
#include "Security/cssmerr.h"

#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <string>

namespace {

/// The constants of a header, by name, read from its text so that none is forgotten.
std::map<std::string, OSStatus> constantsOf(const std::string& header)
{
    static const std::regex pattern("^ *(err[A-Za-z0-9]+) = (-?[0-9]+),");
    std::map<std::string, OSStatus> constants;
    std::ifstream file(std::string(KEYFOLD_SOURCE_DIR) + "/Platform/Security/" + header);
    for (std::string line; std::getline(file, line);) {
        if (std::smatch match; std::regex_search(line, match, pattern))
            constants.emplace(match[1], std::stoi(match[2]));
    }
    return constants;
}

TEST(ErrorText, EveryStatusHasATextOfItsOwn)
{
    auto constants = constantsOf("SecBase.h");
    ASSERT_GE(constants.size(), 39U);
    const auto authorization = constantsOf("Authorization.h");
    ASSERT_EQ(authorization.size(), 14U);
    constants.insert(authorization.begin(), authorization.end());
    constants.erase("errAuthorizationSuccess"); // the same 0
    std::map<std::string, std::string> names;
    for (const auto& [name, status] : constants) {
        const auto text = SecCopyErrorMessageString(status, nullptr);
        ASSERT_TRUE(text) << name;
        EXPECT_GT(text->length(), 5) << name;
        const auto [entry, isNew] = names.emplace(toUTF8(text), name);
        EXPECT_TRUE(isNew) << name << " and " << entry->second << " have the same text";
    }
}

TEST(ErrorText, AuthorizationCodesHaveTheAuthorizationTexts)
{
    EXPECT_EQ(toUTF8(SecCopyErrorMessageString(errAuthorizationCanceled, nullptr)), "The user canceled the operation");
    EXPECT_EQ(
        toUTF8(SecCopyErrorMessageString(errAuthorizationToolExecuteFailure, nullptr)), "The tool failed to execute");
}

TEST(ErrorText, CSSMCodesHaveTexts)
{
    EXPECT_TRUE(SecCopyErrorMessageString(static_cast<OSStatus>(CSSMERR_CSSM_MODULE_NOT_LOADED), nullptr));
    EXPECT_TRUE(SecCopyErrorMessageString(static_cast<OSStatus>(CSSMERR_CSP_MEMORY_ERROR), nullptr));
}

TEST(ErrorText, SuccessHasOneAndUnknownCodesHaveNone)
{
    EXPECT_EQ(toUTF8(SecCopyErrorMessageString(errSecSuccess, nullptr)), "No error.");
    for (const OSStatus status : {1, -1, -60020, -25999, INT32_MAX, INT32_MIN})
        EXPECT_FALSE(SecCopyErrorMessageString(status, nullptr)) << status;
}

TEST(ErrorText, ReservedParameterMustBeNull)
{
    int something = 0;
    EXPECT_FALSE(SecCopyErrorMessageString(errSecParam, &something));
}

} // namespace
