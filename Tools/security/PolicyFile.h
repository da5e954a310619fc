// A JSON file of a browser's policies, which may be an administrator's.
#pragma once

#include "security/Record.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kf::security {

/// One text of ours in a policy file.
struct PolicyEntry {
    enum class Kind {
        member, ///< the value of the last key of `keys`
        item,   ///< one more item of the list at `keys`
    };
    Kind kind;
    std::vector<std::string> keys; ///< from the top of the file
    std::string value;
};

/// The file is strict JSON (RFC 8259) with an object at its top, or it is left
/// as it is. Order and values of everything that is not ours are kept. Which
/// objects, lists and files are there on our account is remembered in a record.
class PolicyFile {
public:
    static constexpr std::size_t sizeLimit = 4UL * 1024 * 1024;
    static constexpr int depthLimit = 64;

    /// Reads it. Neither file nor record need to be there.
    PolicyFile(std::string path, Record& record);
    PolicyFile(const PolicyFile&) = delete;
    PolicyFile& operator=(const PolicyFile&) = delete;
    ~PolicyFile();

    /// Why it cannot be read, or what stood in the way of put(); empty for nothing.
    const std::string& error() const noexcept { return error_; }

    bool holds(const PolicyEntry& entry) const;
    /// The texts of a list; empty where there is none.
    std::vector<std::string> items(const std::vector<std::string>& keys) const;
    /// The texts of an object's members, by key.
    std::vector<std::pair<std::string, std::string>> members(const std::vector<std::string>& keys) const;
    bool has(const std::vector<std::string>& keys) const;

    /// Adds an entry with the objects and lists that it needs; one that is there stays as it is.
    void put(const PolicyEntry& entry);
    /// Takes it out (a member whatever its value), and what was made for it and is empty now.
    void take(const PolicyEntry& entry);

    bool isChanged() const;
    /// Writes the file where it changed, and reads back, or deletes one of ours
    /// without anything in it. The record is prepared before and to be saved
    /// afterwards. Gives what went wrong; empty for nothing.
    std::string save();

private:
    struct Document;

    bool isOurs(const std::vector<std::string>& keys) const;
    void removeEmpty(std::vector<std::string> keys);

    std::string path_;
    Record& record_;
    std::string error_;
    std::unique_ptr<Document> document_;
};

/// The lists of texts at the top of a policy file of somebody else's, read as
/// leniently as browsers do (comments); nothing where it cannot be read.
std::optional<std::map<std::string, std::vector<std::string>>> readPolicyLists(const std::string& path);

} // namespace kf::security
