#include "security/CertificateFile.h"
#include "security/Commands.h"
#include "security/FileTools.h"
#include "security/TrustedCertificate.h"

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

namespace kf::security {

namespace {

using Json = nlohmann::ordered_json;

struct Answer {
    std::string place;
    bool decides;
    PlaceStatus status;
};

PlaceStatus ask(const TrustPlace& place)
{
    try {
        return place.status();
    } catch (const std::exception& error) {
        return {.kind = PlaceStatus::Kind::failed, .text = error.what()};
    }
}

const char* word(PlaceStatus::Kind kind)
{
    switch (kind) {
    case PlaceStatus::Kind::readable:
        return "readable";
    case PlaceStatus::Kind::notPresent:
        return "not present";
    case PlaceStatus::Kind::failed:
        break;
    }
    return "not readable";
}

bool isPublished(const PlaceStatus& status, const std::string& digest)
{
    return std::ranges::find(status.certificates, digest, &HeldCertificate::digest) != status.certificates.end();
}

Json asJson(const HeldCertificate& certificate)
{
    return {{"name", certificate.label}, {"sha256", certificate.digest}};
}

Json asJson(const Answer& answer, const std::string& digest)
{
    const PlaceStatus& status = answer.status;
    Json json = {{"place", answer.place}, {"state", word(status.kind)}};
    if (!status.text.empty())
        json["detail"] = status.text;
    if (!status.follows.empty())
        json["follows"] = status.follows;
    if (!digest.empty()) {
        json["published"] = isPublished(status, digest);
        json["fromAnotherSource"] = status.others.contains(digest);
        return json;
    }
    json["certificates"] = Json::array();
    for (const HeldCertificate& certificate : status.certificates)
        json["certificates"].push_back(asJson(certificate));
    return json;
}

std::string textOf(const PlaceStatus& status, const std::string& digest)
{
    switch (status.kind) {
    case PlaceStatus::Kind::notPresent:
        return status.text.empty() ? "not present on this machine" : status.text;
    case PlaceStatus::Kind::failed:
        return "cannot be read: " + status.text;
    case PlaceStatus::Kind::readable:
        break;
    }
    std::string text;
    if (!digest.empty())
        text = isPublished(status, digest)   ? "there"
            : status.others.contains(digest) ? "there, from another source"
                                             : "not there";
    else
        text = status.certificates.empty() ? "nothing" : std::to_string(status.certificates.size()) + " trusted";
    if (!status.follows.empty())
        text = "follows the " + status.follows;
    return status.text.empty() ? text : text + "; " + status.text;
}

void print(const Answer& answer, const std::string& digest)
{
    std::cout << answer.place << ": " << textOf(answer.status, digest) << '\n';
    if (!digest.empty())
        return;
    for (const HeldCertificate& certificate : answer.status.certificates)
        std::cout << "    " << shownText(certificate.label) << "  SHA-256 " << certificate.digest << '\n';
}

} // namespace

int trustStatus(const Arguments& arguments)
{
    if (arguments.operands.size() > 1)
        return wrongUse("trust-status", "takes one certificate file at most");
    std::string digest;
    if (!arguments.operands.empty()) {
        const TrustedCertificate read = readOperand(arguments.operands[0]);
        if (!read.certificate)
            return exitFailure;
        digest = digestText(read.der);
    }
    std::vector<Answer> answers;
    for (const auto& place : trustPlaces())
        answers.push_back({place->name(), place->decides(), ask(*place)});
    if (arguments.has("json")) {
        Json json = {{"places", Json::array()}};
        for (const Answer& answer : answers)
            json["places"].push_back(asJson(answer, digest));
        std::cout << json.dump(2, ' ', false, Json::error_handler_t::replace) << std::endl;
    } else {
        for (const Answer& answer : answers)
            print(answer, digest);
    }
    const bool isUnknown = std::ranges::any_of(answers,
        [](const Answer& answer) { return answer.decides && answer.status.kind == PlaceStatus::Kind::failed; });
    return isUnknown ? exitFailure : exitSuccess;
}

} // namespace kf::security
