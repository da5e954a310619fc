// The words of a command line.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kf::security {

/// The letter that --json stands for, in the commands that have it.
inline constexpr char jsonLetter = 'j';

/// A command's options and operands.
struct Arguments {
    std::map<char, std::string> options; ///< by letter; empty for one without a value; the last one given counts
    std::vector<std::string> operands;

    bool has(char option) const { return options.contains(option); }
    std::optional<std::string> value(char option) const;
};

/// Arguments, or what is wrong with them.
struct ParsedArguments {
    Arguments arguments;
    std::string error; ///< empty: nothing is wrong
};

/// Sorts the words after a command's name into options and operands, in any
/// order; "--" ends the options. `letters` is as getopt takes it. One thread at a time.
ParsedArguments parseArguments(const std::vector<std::string>& words, const std::string& letters);

} // namespace kf::security
