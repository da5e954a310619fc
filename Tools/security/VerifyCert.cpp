#include "Security/Trust/Evaluation.h"
#include "security/Commands.h"
#include "security/Search.h"
#include "security/Text.h"
#include "security/TrustedCertificate.h"

#include <iostream>
#include <nlohmann/json.hpp>

namespace kf::security {

namespace {

struct Wording {
    const char* name;
    const char* text;
};

Wording wordingOf(SecTrustResultType result)
{
    switch (result) {
    case kSecTrustResultProceed:
        return {"proceed", "trusted by a setting of the user's or the administrator's"};
    case kSecTrustResultUnspecified:
        return {"unspecified", "trusted by an authority of the distribution's"};
    case kSecTrustResultDeny:
        return {"deny", "denied by a trust setting"};
    case kSecTrustResultRecoverableTrustFailure:
        return {"recoverableTrustFailure", "not trusted"};
    case kSecTrustResultFatalTrustFailure:
        return {"fatalTrustFailure", "not trusted, and a signature is wrong"};
    default:
        return {"otherError", "not evaluated"};
    }
}

std::string reasonsOf(const trust::Evaluation& evaluation)
{
    std::string text;
    for (const std::string& reason : evaluation.reasons)
        text += (text.empty() ? ": " : "; ") + reason;
    return text;
}

} // namespace

int verifyCertificate(const Arguments& arguments)
{
    std::vector<std::string> paths = arguments.values("c");
    paths.insert(paths.end(), arguments.operands.begin(), arguments.operands.end());
    if (paths.empty())
        return wrongUse("verify-cert", "needs a certificate file");
    if (arguments.value('p').value_or("basic") != "basic")
        return wrongUse("verify-cert", "unknown policy \"" + printable(*arguments.value('p')) + "\"");
    std::vector<SecCertificateRef> certificates;
    for (const std::string& path : paths) {
        certificates.push_back(readOperand(path).certificate);
        if (!certificates.back())
            return exitFailure;
    }
    const auto evaluation = trust::evaluateWithReasons(certificates);
    if (!evaluation) {
        complain(paths[0], evaluation.status());
        return exitFailure;
    }
    const Wording wording = wordingOf(evaluation->result);
    const bool isTrusted =
        evaluation->result == kSecTrustResultProceed || evaluation->result == kSecTrustResultUnspecified;
    if (arguments.has("json"))
        printJSON({{"file", paths[0]}, {"sha256", sha256Of(certificates[0])}, {"trusted", isTrusted},
            {"result", wording.name}, {"reasons", evaluation->reasons}});
    else if (!arguments.has('q'))
        std::cout << printable(paths[0]) << ": " << wording.text << reasonsOf(*evaluation) << std::endl;
    return isTrusted ? exitSuccess : exitFailure;
}

} // namespace kf::security
