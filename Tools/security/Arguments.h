// The words of a command line.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kf::security {

/// A command's options and operands.
struct Arguments {
    struct Option {
        std::string name;  ///< a letter, or a word without its dashes
        std::string value; ///< empty for one without a value
    };
    std::vector<Option> options; ///< in the order in which they were given
    std::vector<std::string> operands;

    bool has(std::string_view option) const;
    bool has(char option) const { return has({&option, 1}); }
    /// The last one given counts.
    std::optional<std::string> value(std::string_view option) const;
    std::optional<std::string> value(char option) const { return value({&option, 1}); }
    /// All that were given.
    std::vector<std::string> values(std::string_view option) const;
};

/// Arguments, or what is wrong with them.
struct ParsedArguments {
    Arguments arguments;
    std::string error; ///< empty: nothing is wrong
};

/// Sorts the words after a command's name into options and operands, in any
/// order; "--" ends the options, and a negative number is an operand. `letters`
/// are the options of one letter as getopt takes them; `names` are the ones with
/// two dashes, separated by spaces, a colon behind each that takes a value.
ParsedArguments parseArguments(
    const std::vector<std::string>& words, std::string_view letters, std::string_view names = {});

} // namespace kf::security
