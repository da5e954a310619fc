#include "security/PolicyFile.h"

#include "security/FileTools.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

namespace kf::security {

namespace {

using Json = nlohmann::ordered_json;

/// Looks a text over before anything is made of it: strict JSON without what
/// would not survive reading and writing.
class Inspector final : public nlohmann::json_sax<Json> {
public:
    explicit Inspector(int depthLimit) : depthLimit_(depthLimit) { }

    const std::string& error() const noexcept { return error_; }

    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t& text) override
    {
        constexpr std::size_t digitsOfADouble = 15;
        const auto digits = std::ranges::count_if(text, [](char c) { return c >= '0' && c <= '9'; });
        return static_cast<std::size_t>(digits) <= digitsOfADouble || fail("a number too long to be kept exactly");
    }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override
    {
        keys_.emplace_back();
        return goDown();
    }
    bool key(string_t& name) override
    {
        return keys_.back().insert(name).second || fail("the key \"" + name + "\" twice in one object");
    }
    bool end_object() override
    {
        keys_.pop_back();
        --depth_;
        return true;
    }
    bool start_array(std::size_t) override { return goDown(); }
    bool end_array() override
    {
        --depth_;
        return true;
    }
    bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception&) override
    {
        error_ = "is not strict JSON (at byte " + std::to_string(position) + ")";
        return false;
    }

private:
    bool goDown() { return ++depth_ <= depthLimit_ || fail("too many levels"); }
    bool fail(const std::string& what)
    {
        error_ = "holds " + what;
        return false;
    }

    int depthLimit_;
    int depth_ = 0;
    std::vector<std::set<std::string>> keys_;
    std::string error_;
};

/// How somebody laid a file out.
struct Style {
    int indent = 2; ///< negative: all on one line
    char space = ' ';
    bool endsLine = true;

    static Style of(const std::string& text)
    {
        Style style;
        style.endsLine = text.ends_with('\n');
        const std::size_t line = text.find('\n');
        if (line == text.npos || line + 1 == text.size())
            style.indent = -1;
        const std::size_t first = text.find_first_of(" \t", std::min(line, text.size()));
        if (line != text.npos && first == line + 1) {
            style.space = text[first];
            style.indent = static_cast<int>(std::min(text.find_first_not_of(style.space, first), text.size()) - first);
        }
        return style;
    }
    std::string text(const Json& json) const { return json.dump(indent, space) + (endsLine ? "\n" : ""); }
};

/// Why a text is not one that we rewrite; empty where it is.
std::string whyNotStrict(const std::string& text)
{
    // The parser takes a zero byte for the end, and a byte order mark for nothing.
    if (text.find('\0') != text.npos || text.starts_with("\xEF\xBB\xBF"))
        return "is not strict JSON (at byte 1)";
    Inspector inspector(PolicyFile::depthLimit);
    return Json::sax_parse(text, &inspector) ? std::string() : inspector.error();
}

/// RFC 6901.
std::string pointerText(const std::vector<std::string>& keys)
{
    Json::json_pointer pointer;
    for (const std::string& key : keys)
        pointer /= key;
    return pointer.to_string();
}

std::string recordLine(const std::vector<std::string>& keys) { return "made " + pointerText(keys); }

const Json* find(const Json& top, const std::vector<std::string>& keys)
{
    const Json* value = &top;
    for (const std::string& key : keys) {
        const auto member = value->is_object() ? value->find(key) : value->end();
        if (member == value->end())
            return nullptr;
        value = &*member;
    }
    return value;
}

Json* find(Json& top, const std::vector<std::string>& keys)
{
    return const_cast<Json*>(find(std::as_const(top), keys));
}

/// The keys of the object or list that holds an entry.
std::vector<std::string> holderOf(const PolicyEntry& entry)
{
    std::vector<std::string> keys = entry.keys;
    if (entry.kind == PolicyEntry::Kind::member)
        keys.pop_back();
    return keys;
}

} // namespace

struct PolicyFile::Document {
    Json json = Json::object();
    Json saved;
    Style style;
    bool isThere = false;
};

PolicyFile::PolicyFile(std::string path, Record& record)
    : path_(std::move(path)), record_(record), error_(record.error()), document_(std::make_unique<Document>())
{
    const FileContent content = readFile(path_, sizeLimit);
    if (content.isMissing)
        return;
    document_->isThere = true;
    std::string reason = content.text ? whyNotStrict(*content.text) : content.error;
    if (reason.empty()) {
        document_->json = Json::parse(*content.text);
        document_->style = Style::of(*content.text);
        if (!document_->json.is_object())
            reason = "is not an object";
    }
    if (!reason.empty())
        error_ = path_ + " " + reason + " and is left as it is";
    document_->saved = document_->json;
}

PolicyFile::~PolicyFile() = default;

bool PolicyFile::has(const std::vector<std::string>& keys) const { return find(document_->json, keys); }

bool PolicyFile::holds(const PolicyEntry& entry) const
{
    const Json* value = find(document_->json, entry.keys);
    if (!value)
        return false;
    if (entry.kind == PolicyEntry::Kind::member)
        return *value == entry.value;
    return value->is_array() && std::ranges::find(*value, Json(entry.value)) != value->end();
}

std::vector<std::string> PolicyFile::items(const std::vector<std::string>& keys) const
{
    std::vector<std::string> texts;
    const Json* list = find(document_->json, keys);
    if (!list || !list->is_array())
        return texts;
    for (const Json& item : *list) {
        if (item.is_string())
            texts.push_back(item.get<std::string>());
    }
    return texts;
}

std::vector<std::pair<std::string, std::string>> PolicyFile::members(const std::vector<std::string>& keys) const
{
    std::vector<std::pair<std::string, std::string>> texts;
    const Json* object = find(document_->json, keys);
    if (!object || !object->is_object())
        return texts;
    for (const auto& [key, value] : object->items()) {
        if (value.is_string())
            texts.emplace_back(key, value.get<std::string>());
    }
    return texts;
}

void PolicyFile::put(const PolicyEntry& entry)
{
    if (!error_.empty() || holds(entry))
        return;
    const std::vector<std::string> holder = holderOf(entry);
    const bool isItem = entry.kind == PolicyEntry::Kind::item;
    std::vector<std::string> keys;
    Json* value = &document_->json;
    for (std::size_t depth = 0;; ++depth) {
        const bool isList = isItem && depth == holder.size();
        if (isList ? !value->is_array() : !value->is_object()) {
            error_ = path_ + " has something at " + pointerText(keys) + " that is not "
                + (isList ? "a list" : "an object") + " and is left as it is";
            return;
        }
        if (depth == holder.size())
            break;
        keys.push_back(holder[depth]);
        if (!value->contains(holder[depth])) {
            (*value)[holder[depth]] = isItem && keys.size() == holder.size() ? Json::array() : Json::object();
            record_.add(recordLine(keys));
        }
        value = &(*value)[holder[depth]];
    }
    if (isItem)
        value->push_back(entry.value);
    else
        (*value)[entry.keys.back()] = entry.value;
    if (!document_->isThere)
        record_.add(recordLine({}));
}

void PolicyFile::take(const PolicyEntry& entry)
{
    if (!error_.empty())
        return;
    Json* holder = find(document_->json, holderOf(entry));
    if (holder && entry.kind == PolicyEntry::Kind::member && holder->is_object())
        holder->erase(entry.keys.back());
    else if (holder && holds(entry))
        holder->erase(std::ranges::find(*holder, Json(entry.value)));
    removeEmpty(holderOf(entry));
}

bool PolicyFile::isOurs(const std::vector<std::string>& keys) const { return record_.has(recordLine(keys)); }

/// From the inside out: what we made for our entries and nobody else uses.
void PolicyFile::removeEmpty(std::vector<std::string> keys)
{
    for (; !keys.empty() && isOurs(keys); keys.pop_back()) {
        const Json* value = find(document_->json, keys);
        if (value && !value->empty())
            return;
        if (value)
            find(document_->json, {keys.begin(), keys.end() - 1})->erase(keys.back());
        record_.erase(recordLine(keys));
    }
}

bool PolicyFile::isChanged() const { return document_->json != document_->saved; }

std::string PolicyFile::save()
{
    if (!error_.empty())
        return error_;
    if (document_->json.empty() && isOurs({})) {
        record_.erase(recordLine({}));
        return removeFile(path_);
    }
    if (!isChanged())
        return removeLeftover(path_);
    const std::string directory = std::filesystem::path(path_).parent_path().string();
    if (std::string error = record_.makeDirectory(directory); !error.empty())
        return error;
    return writeFileAtomically(path_, document_->style.text(document_->json), 0644);
}

std::optional<std::map<std::string, std::vector<std::string>>> readPolicyLists(const std::string& path)
{
    const FileContent content = readFile(path, PolicyFile::sizeLimit, true);
    if (!content.text)
        return std::nullopt;
    const Json json = Json::parse(*content.text, nullptr, false, true);
    if (!json.is_object())
        return std::nullopt;
    std::map<std::string, std::vector<std::string>> lists;
    for (const auto& [key, value] : json.items()) {
        for (const Json& item : value.is_array() ? value : Json::array()) {
            if (item.is_string())
                lists[key].push_back(item.get<std::string>());
        }
        if (value.is_array())
            lists.try_emplace(key);
    }
    return lists;
}

} // namespace kf::security
