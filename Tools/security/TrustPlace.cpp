#include "security/TrustPlace.h"

#include "security/CertificateFile.h"
#include "security/ChromiumPolicy.h"
#include "security/DistributionTrustStore.h"
#include "security/FirefoxPolicy.h"

#include <exception>

namespace kf::security {

namespace {

/// The text in lower case with a hyphen for each run of anything but letters and digits.
std::string slug(const std::string& text)
{
    constexpr std::size_t lengthLimit = 40;
    std::string result;
    for (const char character : text) {
        const bool isUpper = character >= 'A' && character <= 'Z';
        const bool isLower = character >= 'a' && character <= 'z';
        const bool isDigit = character >= '0' && character <= '9';
        if (isUpper)
            result += static_cast<char>(character - 'A' + 'a');
        else if (isLower || isDigit)
            result += character;
        else if (!result.empty() && result.back() != '-')
            result += '-';
        if (result.size() == lengthLimit)
            break;
    }
    while (!result.empty() && result.back() == '-')
        result.pop_back();
    return result.empty() ? "authority" : result;
}

} // namespace

Outcome done(std::string text) { return {Outcome::Kind::done, std::move(text)}; }
Outcome unchanged(std::string text) { return {Outcome::Kind::unchanged, std::move(text)}; }
Outcome notPresent() { return {Outcome::Kind::notPresent, "not present on this machine"}; }
Outcome failed(std::string text) { return {Outcome::Kind::failed, std::move(text)}; }

TrustPlace::~TrustPlace() = default;

std::vector<std::unique_ptr<PublishedPlace>> publishedPlaces()
{
    std::vector<std::unique_ptr<PublishedPlace>> places;
    places.push_back(std::make_unique<DistributionTrustStore>(distributionLayout()));
    for (const ChromiumPolicy::Browser& browser : ChromiumPolicy::browsers())
        places.push_back(std::make_unique<ChromiumPolicy>(browser));
    places.push_back(std::make_unique<FirefoxPolicy>(FirefoxPolicy::Places()));
    return places;
}

Outcome attempt(const std::function<Outcome()>& change)
{
    try {
        return change();
    } catch (const std::exception& error) {
        return failed(error.what());
    }
}

std::string publishedName(const Bytes& certificate)
{
    const auto fields = readCertificateFields(certificate);
    constexpr std::size_t digestDigits = 32;
    return publishedPrefix + slug(fields ? fields->label : std::string()) + "-"
        + digestText(certificate).substr(0, digestDigits);
}

} // namespace kf::security
