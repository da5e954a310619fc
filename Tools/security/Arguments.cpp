#include "security/Arguments.h"

#include <algorithm>

namespace kf::security {

namespace {

enum class Kind { unknown, plain, withValue };

bool isNegativeNumber(std::string_view word)
{
    return word.size() > 1 && word[0] == '-' && word.find_first_not_of("0123456789", 1) == word.npos;
}

Kind kindOfLetter(std::string_view letters, char letter)
{
    const auto place = letter == ':' ? letters.npos : letters.find(letter);
    if (place == letters.npos)
        return Kind::unknown;
    return place + 1 < letters.size() && letters[place + 1] == ':' ? Kind::withValue : Kind::plain;
}

Kind kindOfName(std::string_view names, std::string_view name)
{
    while (!names.empty()) {
        std::string_view next = names.substr(0, names.find(' '));
        names.remove_prefix(std::min(names.size(), next.size() + 1));
        const bool takesValue = next.ends_with(':');
        next.remove_suffix(takesValue ? 1 : 0);
        if (next == name)
            return takesValue ? Kind::withValue : Kind::plain;
    }
    return Kind::unknown;
}

/// Takes one word after the other; stops at the first that is wrong.
class Parser {
public:
    Parser(const std::vector<std::string>& words, std::string_view letters, std::string_view names)
        : words_(words), letters_(letters), names_(names)
    {
    }

    ParsedArguments parse()
    {
        bool ended = false;
        while (next_ < words_.size() && parsed_.error.empty()) {
            const std::string_view word = words_[next_++];
            if (ended || word.size() < 2 || word[0] != '-' || isNegativeNumber(word))
                parsed_.arguments.operands.emplace_back(word);
            else if (word == "--")
                ended = true;
            else if (word.starts_with("--"))
                takeName(word.substr(2));
            else
                takeLetters(word.substr(1));
        }
        return std::move(parsed_);
    }

private:
    void takeName(std::string_view word)
    {
        const auto equals = word.find('=');
        const std::string name(word.substr(0, equals));
        const Kind kind = kindOfName(names_, name);
        if (kind == Kind::unknown)
            parsed_.error = "unknown option --" + name;
        else if (kind == Kind::plain && equals != word.npos)
            parsed_.error = "option --" + name + " takes no value";
        else if (equals != word.npos)
            add(name, std::string(word.substr(equals + 1)));
        else
            take(kind, name, "--" + name);
    }

    void takeLetters(std::string_view cluster)
    {
        for (std::size_t index = 0; index < cluster.size() && parsed_.error.empty(); ++index) {
            const std::string letter(1, cluster[index]);
            const Kind kind = kindOfLetter(letters_, cluster[index]);
            if (kind == Kind::unknown) {
                parsed_.error = "unknown option -" + letter;
            } else if (kind == Kind::withValue && index + 1 < cluster.size()) {
                add(letter, std::string(cluster.substr(index + 1)));
                return;
            } else {
                take(kind, letter, "-" + letter);
            }
        }
    }

    void take(Kind kind, const std::string& name, const std::string& shown)
    {
        if (kind == Kind::plain)
            add(name, {});
        else if (next_ == words_.size())
            parsed_.error = "option " + shown + " needs a value";
        else
            add(name, words_[next_++]);
    }

    void add(const std::string& name, std::string value)
    {
        parsed_.arguments.options.push_back({name, std::move(value)});
    }

    const std::vector<std::string>& words_;
    std::string_view letters_;
    std::string_view names_;
    std::size_t next_ = 0;
    ParsedArguments parsed_;
};

} // namespace

bool Arguments::has(std::string_view option) const { return value(option).has_value(); }

std::optional<std::string> Arguments::value(std::string_view option) const
{
    const auto all = values(option);
    return all.empty() ? std::nullopt : std::optional(all.back());
}

std::vector<std::string> Arguments::values(std::string_view option) const
{
    std::vector<std::string> found;
    for (const auto& [name, value] : options)
        if (name == option)
            found.push_back(value);
    return found;
}

ParsedArguments parseArguments(const std::vector<std::string>& words, std::string_view letters, std::string_view names)
{
    return Parser(words, letters, names).parse();
}

} // namespace kf::security
