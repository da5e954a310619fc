#include "Security/Keychain/Labels.h"

#include <algorithm>

namespace kf::keychain {

std::string cleanLabel(std::string_view text)
{
    std::string label(text);
    std::erase_if(label, [](char c) { return c == ':' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
    label.erase(0, label.find_first_not_of(' '));
    label.erase(label.find_last_not_of(' ') + 1);
    return label;
}

std::string defaultLabel(const ParsedCertificate& certificate)
{
    return certificate.fields ? cleanLabel(certificate.fields->label) : std::string();
}

} // namespace kf::keychain
