// Rows of test vectors: what goes in and what comes out, good and bad side by side.
#pragma once

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace kf::test {

/// Text in which \xNN stands for a byte.
inline std::string unescaped(const std::string& text)
{
    std::string bytes;
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (text[index] != '\\') {
            bytes += text[index];
            continue;
        }
        std::size_t digits = 0;
        if (text.compare(index, 2, "\\x") != 0)
            throw std::runtime_error("only \\xNN is an escape: " + text);
        bytes += static_cast<char>(std::stoi(text.substr(index + 2, 2), &digits, 16));
        if (digits != 2)
            throw std::runtime_error("two digits make a byte: " + text);
        index += 3;
    }
    return bytes;
}

/// The rows of a file in Vectors/, cut at tabs into `columns`; empty lines and lines that begin with # are none. Throws
/// where a row has another number of columns.
inline std::vector<std::vector<std::string>> readVectors(const std::string& name, std::size_t columns)
{
    std::ifstream file(std::string(KEYFOLD_VECTORS) + "/" + name);
    if (!file)
        throw std::runtime_error(name + " is not there");
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        std::vector<std::string> row;
        for (std::size_t begin = 0, end; begin <= line.size(); begin = end + 1) {
            end = std::min(line.find('\t', begin), line.size());
            row.push_back(unescaped(line.substr(begin, end - begin)));
        }
        if (row.size() != columns)
            throw std::runtime_error(name + " has a row of " + std::to_string(row.size()) + " columns: " + line);
        rows.push_back(std::move(row));
    }
    return rows;
}

} // namespace kf::test
