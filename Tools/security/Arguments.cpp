#include "security/Arguments.h"

#include <getopt.h>

namespace kf::security {

std::optional<std::string> Arguments::value(char option) const
{
    const auto found = options.find(option);
    return found == options.end() ? std::nullopt : std::optional(found->second);
}

ParsedArguments parseArguments(const std::vector<std::string>& words, const std::string& letters)
{
    ParsedArguments parsed;
    std::vector<std::string> copy = words;
    std::string name = "security";
    std::vector<char*> vector = {name.data()};
    for (auto& word : copy)
        vector.push_back(word.data());
    const int count = static_cast<int>(vector.size());
    vector.push_back(nullptr);
    opterr = 0; // messages are ours
    optind = 0; // begins anew
    const std::string specification = ":" + letters;
    constexpr option noMore = {nullptr, 0, nullptr, 0};
    const option json = {"json", no_argument, nullptr, jsonLetter};
    const option longOptions[] = {letters.find(jsonLetter) != letters.npos ? json : noMore, noMore};
    for (int option;
         (option = ::getopt_long(count, vector.data(), specification.c_str(), longOptions, nullptr)) != -1;) {
        if (option == '?' && optopt == 0) {
            parsed.error = "unknown option " + std::string(vector[static_cast<std::size_t>(optind - 1)]);
            return parsed;
        }
        const std::string letter(1, static_cast<char>(optopt));
        if (option == '?') {
            parsed.error = "unknown option -" + letter;
            return parsed;
        }
        if (option == ':') {
            parsed.error = "option -" + letter + " needs a value";
            return parsed;
        }
        parsed.arguments.options[static_cast<char>(option)] = optarg ? optarg : "";
    }
    for (int index = optind; index < count; ++index)
        parsed.arguments.operands.emplace_back(vector[static_cast<std::size_t>(index)]);
    return parsed;
}

} // namespace kf::security
