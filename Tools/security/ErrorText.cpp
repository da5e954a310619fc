#include "security/Commands.h"
#include "security/Text.h"

#include <array>
#include <charconv>
#include <iostream>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>

namespace kf::security {

namespace {

/// A status in decimal, or its 32 bits in hexadecimal after "0x".
std::optional<OSStatus> statusOf(const std::string& text)
{
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    const char* const end = text.data() + text.size();
    std::int64_t number = 0;
    const auto read = std::from_chars(text.data() + (isHex ? 2 : 0), end, number, isHex ? 16 : 10);
    if (read.ec != std::errc() || read.ptr != end || (isHex && number < 0)
        || number > std::numeric_limits<std::uint32_t>::max() || number < std::numeric_limits<OSStatus>::min())
        return std::nullopt;
    return static_cast<OSStatus>(number);
}

std::string hexText(OSStatus status)
{
    const auto bits = static_cast<std::uint32_t>(status);
    const std::array<std::uint8_t, 4> bytes = {static_cast<std::uint8_t>(bits >> 24U),
        static_cast<std::uint8_t>(bits >> 16U), static_cast<std::uint8_t>(bits >> 8U), static_cast<std::uint8_t>(bits)};
    return "0x" + security::hexText(bytes);
}

} // namespace

int showError(const Arguments& arguments)
{
    if (arguments.operands.empty())
        return wrongUse("error", "needs a status");
    std::vector<OSStatus> statuses;
    for (const std::string& operand : arguments.operands) {
        const auto status = statusOf(operand);
        if (!status)
            return wrongUse("error", "\"" + printable(operand) + "\" is no status");
        statuses.push_back(*status);
    }
    bool areAllKnown = true;
    JSON list = JSON::array();
    for (const OSStatus status : statuses) {
        const auto text = SecCopyErrorMessageString(status, nullptr);
        areAllKnown &= static_cast<bool>(text);
        const std::string shown = text ? toUTF8(text) : "There is no text for this status.";
        if (arguments.has("json"))
            list.push_back({{"status", status}, {"hex", hexText(status)}, {"text", text ? JSON(shown) : JSON()}});
        else
            std::cout << "Error: " << hexText(status) << ' ' << status << ' ' << shown << '\n';
    }
    if (arguments.has("json"))
        printJSON(list);
    return areAllKnown ? exitSuccess : exitFailure;
}

} // namespace kf::security
