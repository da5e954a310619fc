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

std::string freeLabel(const std::string& wanted, const std::function<bool(const std::string& label)>& isTaken)
{
    constexpr int mostNumbers = 1 << 20;
    if (wanted.empty() || !isTaken(wanted))
        return wanted;
    const auto numbered = [&](int number) { return wanted + " #" + std::to_string(number); };
    int taken = 1;
    int free = 2;
    for (; free < mostNumbers && isTaken(numbered(free)); free *= 2)
        taken = free;
    while (free - taken > 1) {
        const int middle = taken + (free - taken) / 2;
        (isTaken(numbered(middle)) ? taken : free) = middle;
    }
    return numbered(free);
}

} // namespace kf::keychain
